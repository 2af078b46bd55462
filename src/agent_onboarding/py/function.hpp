// Real function objects with native bodies.
//
// The declaration line of each function is compiled by the interpreter (while the extension is built), so signature,
// defaults, annotations, binding as a method, pickling and every word of an argument error are its own; only then the
// function's vectorcall is set to ours (PyFunction_SetVectorcall, CPython 3.12). Our entry binds well-formed calls and
// hands all others to the function's original vectorcall, which raises.
#pragma once

#include "arguments.hpp"
#include "call.hpp"

#include <initializer_list>
#include <new>
#include <span>

namespace corvane::py {

/// One running native body: its arguments, in the order of the declaration, and where its tracebacks point.
class frame {
  public:
    /// The body of a function.
    frame(PyFunctionObject* function, PyCodeObject* code, PyObject* const* values) noexcept
        : function_(function), code_(code), values_(values) {}
    /// The body of the module.
    explicit frame(handle module_namespace) noexcept : module_namespace_(module_namespace) {}

    [[nodiscard]] handle operator[](std::size_t index) const noexcept { return handle(values_[index]); }
    /// A variable of the enclosing function, in the order of `__closure__`.
    [[nodiscard]] object enclosed(Py_ssize_t index, where line = where::current()) const;
    /// What the function was declared as; a callee may give the function another `__code__` while it runs.
    [[nodiscard]] PyCodeObject* code() const noexcept { return code_; }
    /// Adds this frame to the traceback, as the interpreter does where an exception leaves a frame or is caught in it.
    void trace(error& raised) const noexcept;

  private:
    PyFunctionObject* function_ = nullptr;
    PyCodeObject* code_ = nullptr;
    PyObject* const* values_ = nullptr;
    handle module_namespace_;
};

using native_body = object (*)(const frame& in);

/// The code object that the interpreter compiled for a body, to be compared and never used; the layer keeps it alive.
template <native_body Body> inline const void* code_of = nullptr;

/// Py_EnterRecursiveCall for a native body, which takes more of the stack than a function of the interpreter's.
[[nodiscard]] bool enter_recursion(PyThreadState* thread);
void leave_recursion(PyThreadState* thread) noexcept;
/// The interpreter's own way to call the function: raises its TypeError for arguments that do not fit.
PyObject* interpret(PyObject* callable, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords);

/// The body once its arguments are bound; `nullptr` with the Python error set on failure. A template, so that the
/// compiler can put the body into it: an exception is then thrown and caught in one C++ frame, at half the price.
template <native_body Body> PyObject* run_body(PyFunctionObject* function, const bound_arguments& bound) {
    PyThreadState* thread = PyThreadState_Get();
    if (!enter_recursion(thread))
        return nullptr;
    const frame running(function, bound.code(), bound.values());
    PyObject* result = nullptr;
    try {
        result = Body(running).release();
    } catch (error& raised) {
        running.trace(raised);
        raised.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    leave_recursion(thread);
    return result;
}

/// The vectorcall of a function of ours.
template <native_body Body>
PyObject* enter_native(PyObject* callable, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords) {
    auto* function = reinterpret_cast<PyFunctionObject*>(callable);
    if (function->func_code != code_of<Body>) // somebody gave the function another `__code__`
        return interpret(callable, arguments, flagged_count, keywords);
    const bound_arguments bound(function, arguments, flagged_count, keywords);
    switch (bound.result()) {
    case bound_arguments::outcome::failed:
        return nullptr;
    case bound_arguments::outcome::impossible:
        return interpret(callable, arguments, flagged_count, keywords);
    case bound_arguments::outcome::bound:
        break;
    }
    return run_body<Body>(function, bound);
}

/// A name among the declarations, and the body that runs instead of theirs.
struct native_function {
    const char* name;
    vectorcallfunc entry;
    const void** code;
};

template <native_body Body> constexpr native_function native(const char* name) {
    return {name, enter_native<Body>, &code_of<Body>};
}

/// Interns the names of the program, loads the declarations (as compile_declarations.py wrote them) and remembers the
/// namespace in which functions look names up. Called at the start of an initialisation; what it stores stays until the
/// interpreter is gone, because functions can outlive the module.
void start(handle module_namespace, std::span<const unsigned char> declarations);
/// Undoes `start` when the initialisation has failed.
void stop();

/// Executes the module's import statements in its namespace.
void run_imports();
/// Defines the function in the module's namespace.
void define(const native_function& function);
template <native_body Body> void define(const char* name) { define(native<Body>(name)); }
/// Defines the class in the module's namespace; each of the methods named here gets a native body.
void define_class(const char* name, std::initializer_list<native_function> methods = {});
/// Defines a generator function: its declared body runs as it is, so that all the manners of a generator are the
/// interpreter's, and calls the steps, methods of a declared class, which it finds by name among its free variables.
void define_generator(const char* name, const char* steps_class, std::initializer_list<native_function> steps);

/// A function or lambda declared inside the running one, made anew with the enclosed values.
[[nodiscard]] object nested_function(const frame& in, const native_function& function,
                                     std::initializer_list<handle> enclosed);
template <native_body Body, typename... Enclosed>
[[nodiscard]] object nested_function(const frame& in, const char* name, const Enclosed&... enclosed) {
    return nested_function(in, native<Body>(name), {handle(enclosed)...});
}

/// Executes an import statement declared inside a function, `function.bound_name`, and answers what it binds. Where it
/// fails, its own frame is the function's entry in the traceback.
[[nodiscard]] object imported(name declaration);

} // namespace corvane::py
