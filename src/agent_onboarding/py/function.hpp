// Real function objects with native bodies. The interpreter compiles the declaration of each function, while the
// extension is built: signature, defaults, annotations, pickling and every word of an argument error are its own. The
// compiled body passes the parameters on to the native one: wherever the code object ends up, the body goes with it.
// The function's vectorcall is a shorter way to the same body, without a frame of the interpreter's.
#pragma once

#include "arguments.hpp"
#include "call.hpp"

#include <new>

namespace corvane::py {

/// Where the traceback entries of a running body point.
struct frame {
    PyCodeObject* code = nullptr; ///< none for the body of the module
    bool interpreted = false;     ///< a frame of the interpreter's around the body traces what leaves it
    /// Adds this frame to the traceback, as the interpreter does where an exception is caught in a frame.
    void trace(error& raised) const noexcept;
};

/// The code object that the interpreter compiled for a body, kept alive by the layer.
template <auto Body> inline PyCodeObject* code_of = nullptr;
/// Whether bodies can run: not after an initialisation that failed.
inline bool initialised = false;

template <typename... Parameters> constexpr std::size_t parameter_count(object (*)(const frame&, Parameters...)) {
    return sizeof...(Parameters);
}

/// The interpreter's own way to call a function: raises its TypeError for arguments that do not fit, and runs the body
/// for those that only it can bind.
inline vectorcallfunc interpreted = nullptr;

/// Py_EnterRecursiveCall for a native body; false with RecursionError set. Before 3.14 that counts calls only, which
/// says little of larger frames than the interpreter's, and nothing of threads with small stacks.
[[nodiscard]] bool enter_recursion();

/// The body with its parameters. A template, so that the compiler can put the body into it: an exception is then thrown
/// and caught in one C++ frame, at half the price.
template <auto Body> PyObject* run_body(const frame& running, PyObject* const* values) {
    if (!enter_recursion())
        return nullptr;
    PyObject* result = nullptr;
    try {
        result =
            [&]<std::size_t... Places>(std::index_sequence<Places...>) {
                return Body(running, handle(values[Places])...);
            }(std::make_index_sequence<parameter_count(Body)>())
                .release();
    } catch (error& raised) {
        if (!running.interpreted)
            running.trace(raised);
        raised.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    Py_LeaveRecursiveCall();
    return result;
}

/// The vectorcall of a function of ours.
template <auto Body>
PyObject* enter_native(PyObject* callable, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords) {
    static_assert(parameter_count(Body) < bound_arguments::most);
    auto* function = reinterpret_cast<PyFunctionObject*>(callable);
    auto* code = reinterpret_cast<PyCodeObject*>(function->func_code);
    if (code == code_of<Body> && initialised) { // or somebody gave it another `__code__`
        bound_arguments bound;
        if (bound.bind(function, arguments, PyVectorcall_NARGS(flagged_count), keywords)) [[likely]]
            return run_body<Body>({code}, bound.values);
    }
    PyErr_Clear(); // no memory to bind: the interpreter comes to the same
    return foreign_call(interpreted, callable, arguments, flagged_count, keywords);
}

/// What the interpreted body calls with the parameters; with others only if somebody dug it out.
template <auto Body> PyObject* enter_interpreted(PyObject* self, PyObject* const* values, Py_ssize_t count) {
    auto* code = reinterpret_cast<PyCodeObject*>(self);
    if (code != code_of<Body> || !initialised || count != static_cast<Py_ssize_t>(parameter_count(Body))) {
        PyErr_SetString(PyExc_SystemError, "native body not reached");
        return nullptr;
    }
    return run_body<Body>({code, true}, values);
}

/// A name among the declarations, and the body that runs for it.
struct native_function {
    const char* name;
    std::size_t parameters;
    vectorcallfunc entry;
    PyMethodDef* interpreted;
    PyCodeObject** code;
};

template <auto Body>
inline PyMethodDef method_of{"native_body", _PyCFunction_CAST(enter_interpreted<Body>), METH_FASTCALL, nullptr};
template <auto Body> constexpr native_function native(const char* name) {
    return {name, parameter_count(Body), enter_native<Body>, &method_of<Body>, &code_of<Body>};
}

/// Begins an initialisation: loads the declarations (as compile_declarations.py wrote them) and remembers the namespace
/// in which functions look names up. All of it stays until the interpreter is gone, for functions outlive the module.
void start(handle module_namespace, std::span<const unsigned char> declarations);
/// The initialisation has failed: functions that somebody has kept say that their body is missing.
inline void stop() noexcept { initialised = false; }

// These work in the module's namespace.
/// Executes a declaration: the imports, a function, or a class of which each method named here gets a native body.
void define(const char* name, std::initializer_list<native_function> bodies = {});
template <auto Body> void define(const char* name) { define(name, {native<Body>(name)}); }
/// The declared body of a generator function runs as it is, so that all the manners of a generator are the
/// interpreter's, and calls two steps, declared functions, in the order in which it names them.
void define_generator(const char* name, const native_function& first_step, const native_function& second_step);

/// Has the interpreter execute an import or make a function or lambda, declared inside of one of ours and known as
/// `function.name`, with the enclosed values; returns what it binds. Where that fails, its own frame is the function's
/// entry in the traceback.
[[nodiscard]] callee inner_statement(name declaration, std::initializer_list<argument> enclosed = {},
                                     location at = location::current());
/// Has the interpreter execute a declared statement with the values. Where it fails, its frame does not show.
object interpret_statement(name declaration, std::initializer_list<argument> values, location at = location::current());

} // namespace corvane::py
