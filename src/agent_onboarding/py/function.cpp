#include "function.hpp"

#include <frameobject.h>
#include <marshal.h>

#include <cstdint>

namespace corvane::py {

namespace {

/// By name, the code that makes each function or class, or that is an import statement. It outlives the module, for
/// function objects can.
handle codes;
constexpr std::int64_t nobody = -1;
std::int64_t interpreter_of_codes = nobody;
bool forgets_at_exit = false; // an exit function is called once and then forgotten

vectorcallfunc interpreted = nullptr; // the vectorcall of every function that the interpreter makes
body_node* first_body = nullptr;

/// When the interpreter has ended its objects are gone, and another one may start in this process.
void forget() noexcept {
    stop();
    forget_namespace();
    codes = handle();
    interpreter_of_codes = nobody;
    forgets_at_exit = false;
}

} // namespace

body_node::body_node() noexcept : next(first_body) { first_body = this; }

PyObject* interpret(PyObject* callable, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords) {
    return foreign_call(interpreted, callable, arguments, flagged_count, keywords);
}

// -- Tracebacks -----------------------------------------------------------------------------------------------------

namespace {
/// A code object for a traceback entry. The interpreter folds repeated entries of one file, which it knows by the
/// identity of its name, so that the name has to be the same object each time.
object entry_code(const char* function, const location& line) {
    auto* code = PyCode_NewEmpty(line.file_name(), function, static_cast<int>(line.line()));
    PyObject* file = code == nullptr ? nullptr : PyUnicode_InternFromString(line.file_name());
    if (file != nullptr)
        Py_SETREF(code->co_filename, file);
    return object::steal(code);
}
} // namespace

void frame::trace(error& raised) const noexcept {
    if (raised.traced() || !module_namespace())
        return;
    raised.mark_traced();
    // An error in here may cost the entry, never the exception.
    const char* name = code_ == nullptr ? "<module>" : PyUnicode_AsUTF8(code_->co_name);
    const object code = name == nullptr ? object() : entry_code(name, raised.line());
    object entry;
    if (code)
        entry = object::steal(PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code.ptr()),
                                          module_namespace().ptr(), nullptr));
    PyErr_Clear();
    if (!entry)
        return;
    PyErr_SetRaisedException(object::borrow(raised.value()).release());
    (void)PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(entry.ptr()));
    PyErr_Clear();
}

// -- Declarations ---------------------------------------------------------------------------------------------------

namespace {

/// Does something with each code object inside another one until that returns true; whether it did.
template <typename Function> bool any_nested_code(PyCodeObject* code, Function does) {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(code->co_consts); ++i) {
        PyObject* constant = PyTuple_GET_ITEM(code->co_consts, i);
        if (!PyCode_Check(constant))
            continue;
        auto* nested = reinterpret_cast<PyCodeObject*>(constant);
        if (does(nested) || any_nested_code(nested, does))
            return true;
    }
    return false;
}

/// CPython 3.12 gives a code object up twice where it cannot make the function of it. One more reference, never given
/// back, keeps a failed import from ending in a crash.
void keep_nested_codes(PyCodeObject* code) {
    any_nested_code(code, [](PyCodeObject* nested) {
        (void)object::borrow(handle(nested)).release();
        return false;
    });
}

PyCodeObject* nested_code(PyCodeObject* code, const char* name, location at = location::current()) {
    PyCodeObject* found = nullptr;
    any_nested_code(code, [&](PyCodeObject* nested) {
        if (PyUnicode_CompareWithASCIIString(nested->co_name, name) == 0)
            found = nested;
        return found != nullptr;
    });
    if (found == nullptr)
        throw_error(PyExc_SystemError, "a function is not among the declarations", at);
    return found;
}

/// Makes the sources of the declarations readable for inspect.getsource and for the lines of a traceback. Where
/// somebody has put something else in the place of the standard library's cache they may stay unread.
void offer_sources(handle sources) {
    object linecache = object::steal(foreign_call(PyImport_ImportModule, "linecache"));
    object cache;
    if (linecache)
        cache = object::steal(foreign_call(PyObject_GetAttr, linecache.ptr(), "cache"_n.ptr()));
    PyObject* file = nullptr;
    PyObject* lines = nullptr;
    for (Py_ssize_t position = 0; cache && PyDict_Next(sources.ptr(), &position, &file, &lines) != 0;)
        if (foreign_call(PyObject_SetItem, cache.ptr(), file, lines) < 0)
            break;
    if (PyErr_Occurred() == nullptr)
        return;
    if (!PyErr_ExceptionMatches(PyExc_Exception))
        throw_error();
    PyErr_Clear();
}

object load_declarations(std::span<const unsigned char> marshalled) {
    object loaded = check(PyMarshal_ReadObjectFromString(reinterpret_cast<const char*>(marshalled.data()),
                                                         static_cast<Py_ssize_t>(marshalled.size())));
    offer_sources(handle(PyTuple_GET_ITEM(loaded.ptr(), 1)));
    object made = object::borrow(PyTuple_GET_ITEM(loaded.ptr(), 0));
    PyObject* key = nullptr;
    PyObject* code = nullptr;
    for (Py_ssize_t position = 0; PyDict_Next(made.ptr(), &position, &key, &code) != 0;)
        keep_nested_codes(reinterpret_cast<PyCodeObject*>(code));
    return made;
}

object declared_code(const char* declaration) {
    object key = check(PyUnicode_FromString(declaration));
    object code = get_item(codes, key);
    if (!PyCode_Check(code.ptr()))
        throw_error(PyExc_SystemError, "a declaration is not code");
    return code;
}

/// A function over the module's namespace with these values in its closure.
object new_function(handle code, std::span<const handle> enclosed) {
    if (PyCode_GetNumFree(reinterpret_cast<PyCodeObject*>(code.ptr())) != static_cast<Py_ssize_t>(enclosed.size()))
        throw_error(PyExc_SystemError, "a closure does not fit its declaration");
    object made = check(PyFunction_New(code.ptr(), module_namespace().ptr()));
    if (enclosed.empty())
        return made;
    object cells = check(PyTuple_New(static_cast<Py_ssize_t>(enclosed.size())));
    for (std::size_t i = 0; i < enclosed.size(); ++i)
        PyTuple_SET_ITEM(cells.ptr(), static_cast<Py_ssize_t>(i), check(PyCell_New(enclosed[i].ptr())).release());
    check(PyFunction_SetClosure(made.ptr(), cells.ptr()));
    return made;
}

/// Connects the declared code with its native body. The compiler of the declarations has left `...` in the place of
/// what the code calls; the constants are this code object's alone, and nothing has run it yet.
PyCodeObject* connect(PyCodeObject* declaration, const native_function& native) {
    PyCodeObject* code = nested_code(declaration, native.name);
    const int declared = code->co_argcount + code->co_kwonlyargcount + ((code->co_flags & CO_VARKEYWORDS) != 0 ? 1 : 0);
    if (static_cast<std::size_t>(declared) != native.parameters)
        throw_error(PyExc_SystemError, "a native body has other parameters than its declaration");
    object callable = check(PyCFunction_New(native.interpreted, reinterpret_cast<PyObject*>(code)));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(code->co_consts); ++i) {
        PyObject* constant = PyTuple_GET_ITEM(code->co_consts, i);
        if (constant != Py_Ellipsis)
            continue;
        PyTuple_SET_ITEM(code->co_consts, i, callable.release());
        Py_DECREF(constant);
        break;
    }
    native.node->code = code;
    return code;
}

/// Gives a function the short way to its native body, if it is the declared one. Whoever decorates, traces or replaces
/// what is being defined can have put anything in its place; nothing of that is touched.
void shorten(handle function, const native_function& native) {
    if (!function || !PyFunction_Check(function.ptr()))
        return;
    auto* made = reinterpret_cast<PyFunctionObject*>(function.ptr());
    if (reinterpret_cast<PyCodeObject*>(made->func_code) != native.node->code)
        return;
    if (made->vectorcall == native.entry)
        return; // kept by somebody from an initialisation that failed
    interpreted = made->vectorcall;
    PyFunction_SetVectorcall(made, native.entry);
}

/// Executes a declaration in the namespace; returns what it is bound to afterwards, or nothing.
object execute(handle code, const char* name, location at = location::current()) {
    checked_call(at, PyEval_EvalCode, code.ptr(), module_namespace().ptr(), module_namespace().ptr());
    object key = check(PyUnicode_FromString(name));
    return get(module_namespace(), key);
}

} // namespace

void start(handle module_namespace, std::span<const unsigned char> declarations) {
    if (!forgets_at_exit && Py_AtExit(forget) < 0)
        throw_error(PyExc_SystemError, "the interpreter takes no more exit functions");
    forgets_at_exit = true;
    if (!enter_recursion()) // the thread's stack is measured here and not in the middle of a call, mostly
        throw_error();
    leave_recursion();
    const std::int64_t running = PyInterpreterState_GetID(PyInterpreterState_Get());
    if (interpreter_of_codes != running) {
        // What another interpreter has left is not ours to give back.
        forget_namespace();
        codes = handle();
        interpreter_of_codes = nobody;
        intern_names();
    }
    object loaded = load_declarations(declarations);
    const object left = object::steal(codes.ptr()); // by an initialisation that failed
    codes = handle(loaded.release());
    interpreter_of_codes = running;
    enter_namespace(module_namespace);
    set_global("__builtins__"_n, handle(PyEval_GetBuiltins()));
}

void stop() noexcept {
    for (body_node* node = first_body; node != nullptr; node = node->next)
        node->code = nullptr;
}

void run_imports() { execute(declared_code("imports"), "imports"); }

void define(const native_function& function) {
    object code = declared_code(function.name);
    connect(reinterpret_cast<PyCodeObject*>(code.ptr()), function);
    shorten(execute(code, function.name), function);
}

void define_class(const char* name, std::initializer_list<native_function> methods) {
    object code = declared_code(name);
    for (const native_function& method : methods)
        connect(reinterpret_cast<PyCodeObject*>(code.ptr()), method);
    object made = execute(code, name);
    if (!PyType_Check(made.ptr()))
        return;
    for (const native_function& method : methods) {
        object key = check(PyUnicode_FromString(method.name));
        shorten(handle(_PyType_Lookup(reinterpret_cast<PyTypeObject*>(made.ptr()), key.ptr())), method);
    }
}

void define_generator(const char* name, const char* steps_class, std::initializer_list<native_function> steps) {
    object code = declared_code(name);
    object steps_code = declared_code(steps_class);
    object wanted = check(PyCode_GetFreevars(reinterpret_cast<PyCodeObject*>(code.ptr())));
    object made[bound_arguments::max_parameters];
    handle enclosed[bound_arguments::max_parameters];
    for (const native_function& step : steps) {
        object function = new_function(handle(connect(reinterpret_cast<PyCodeObject*>(steps_code.ptr()), step)), {});
        shorten(function, step);
        object key = check(PyUnicode_FromString(step.name));
        const Py_ssize_t place = check(PySequence_Index(wanted.ptr(), key.ptr()));
        made[place] = function;
        enclosed[place] = function;
    }
    object key = check(PyUnicode_FromString(name));
    set_item(module_namespace(), key, new_function(code, {enclosed, steps.size()}));
}

object nested_function(const frame& in, const char* name, std::initializer_list<handle> enclosed, location at) {
    return new_function(handle(nested_code(in.code(), name, at)), {enclosed.begin(), enclosed.size()});
}

callee imported(name declaration, location at) {
    object statement = get_item(codes, declaration, at);
    if (PyCode_Check(statement.ptr())) { // the first time
        statement = new_function(statement, {});
        set_item(codes, declaration, statement, at);
    }
    try {
        return {call_at(at, statement), at};
    } catch (error& raised) {
        raised.mark_traced();
        throw;
    }
}

} // namespace corvane::py
