#include "function.hpp"

#include <frameobject.h>
#include <marshal.h>

#include <cstdint>
#include <utility>

namespace corvane::py {

namespace {

/// By name, the code that makes each function or class, or that is an import statement. It outlives the module, for
/// function objects can.
handle codes;
constexpr std::int64_t nobody = -1;
std::int64_t interpreter_of_codes = nobody;

vectorcallfunc interpreted = nullptr; // the vectorcall of every function that the interpreter makes

/// When the interpreter has ended its objects are gone, and another one may start in this process.
void forget() noexcept {
    stop();
    forget_namespace();
    codes = handle();
    interpreter_of_codes = nobody;
}

} // namespace

PyObject* interpret(PyObject* callable, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords) {
    PyErr_Clear(); // no memory to bind: the interpreter comes to the same
    return foreign_call(interpreted, callable, arguments, flagged_count, keywords);
}

void frame::trace(error& raised) const noexcept {
    if (raised.traced || !module_namespace())
        return;
    raised.traced = true;
    // An error in here may cost the entry, never the exception. The interpreter folds repeated entries of one function,
    // which it knows by the identity of two texts, so that these have to be the same objects each time.
    auto* line = PyCode_NewEmpty(raised.at.file, "", static_cast<int>(raised.at.line));
    const object owner = object::steal(line);
    PyObject* file = line == nullptr ? nullptr : PyUnicode_InternFromString(raised.at.file);
    object entry;
    if (file != nullptr) {
        PyObject* function = code == nullptr ? "<module>"_n.ptr() : code->co_name;
        Py_SETREF(line->co_filename, file);
        Py_SETREF(line->co_name, Py_NewRef(function));
        Py_SETREF(line->co_qualname, Py_NewRef(function));
        entry = object::steal(PyFrame_New(PyThreadState_Get(), line, module_namespace().ptr(), nullptr));
    }
    PyErr_Clear();
    if (!entry)
        return;
    PyErr_SetRaisedException(object::borrow(raised.value()).release());
    (void)PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(entry.ptr()));
    PyErr_Clear();
}

namespace {

/// The code object of that name inside another one.
PyCodeObject* nested_code(PyCodeObject* code, const char* name) {
    PyCodeObject* found = nullptr;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(code->co_consts) && found == nullptr; ++i)
        if (PyObject* constant = PyTuple_GET_ITEM(code->co_consts, i); PyCode_Check(constant)) {
            auto* nested = reinterpret_cast<PyCodeObject*>(constant);
            const bool is_it = PyUnicode_CompareWithASCIIString(nested->co_name, name) == 0;
            found = is_it ? nested : nested_code(nested, name);
        }
    return found;
}

/// CPython 3.12 gives a code object up twice where it cannot make the function of it. One more reference, never given
/// back, keeps a failed import from ending in a crash.
void keep_nested_codes(handle code) {
    PyObject* constants = reinterpret_cast<PyCodeObject*>(code.ptr())->co_consts;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(constants); ++i)
        if (const handle constant(PyTuple_GET_ITEM(constants, i)); PyCode_Check(constant.ptr())) {
            (void)object::borrow(constant).release();
            keep_nested_codes(constant);
        }
}

object declared_code(handle declaration, location at = location::current()) {
    object code = get_item(codes, declaration, at);
    if (!PyCode_Check(code.ptr()))
        throw_error(PyExc_SystemError, "a declaration is not code", at);
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
PyCodeObject* connect(const char* declaration, const native_function& native) {
    const object outer = declared_code(detail::text_of(declaration));
    PyCodeObject* code = nested_code(reinterpret_cast<PyCodeObject*>(outer.ptr()), native.name);
    if (code == nullptr)
        throw_error(PyExc_SystemError, "a function is not among the declarations");
    const int declared = code->co_argcount + code->co_kwonlyargcount + ((code->co_flags & CO_VARKEYWORDS) != 0 ? 1 : 0);
    if (std::cmp_not_equal(declared, native.parameters))
        throw_error(PyExc_SystemError, "a native body has other parameters than its declaration");
    object callable = check(PyCFunction_New(native.interpreted, reinterpret_cast<PyObject*>(code)));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(code->co_consts); ++i)
        if (PyTuple_GET_ITEM(code->co_consts, i) == Py_Ellipsis) {
            Py_SETREF(PyTuple_GET_ITEM(code->co_consts, i), callable.release());
            break;
        }
    *native.code = code;
    return code;
}

/// Gives a function the short way to its native body, if it is the declared one. Whoever decorates, traces or replaces
/// what is being defined can have put anything in its place; nothing of that is touched.
void shorten(handle function, const native_function& native) {
    if (!function || !PyFunction_Check(function.ptr()))
        return;
    auto* made = reinterpret_cast<PyFunctionObject*>(function.ptr());
    if (reinterpret_cast<PyCodeObject*>(made->func_code) != *native.code || made->vectorcall == native.entry)
        return;
    interpreted = made->vectorcall;
    PyFunction_SetVectorcall(made, native.entry);
}

/// Executes a declaration in the namespace; returns what its name is bound to afterwards, or nothing.
object execute(const char* declaration) {
    const object key = detail::text_of(declaration);
    const object code = declared_code(key);
    checked_call(location::current(), PyEval_EvalCode, code.ptr(), module_namespace().ptr(), module_namespace().ptr());
    return get(module_namespace(), key);
}

} // namespace

void start(handle module_namespace, std::span<const unsigned char> declarations) {
    if (interpreter_of_codes == nobody && Py_AtExit(forget) < 0)
        throw_error(PyExc_SystemError, "the interpreter takes no more exit functions");
    if (!enter_recursion()) // the thread's stack is measured here, and for most programs not in the middle of a call
        throw_error();
    Py_LeaveRecursiveCall();
    const std::int64_t running = PyInterpreterState_GetID(PyInterpreterState_Get());
    if (interpreter_of_codes != running)
        forget(); // what another interpreter has left is not ours to give back
    interpreter_of_codes = running;
    intern_names();
    object loaded = check(PyMarshal_ReadObjectFromString(reinterpret_cast<const char*>(declarations.data()),
                                                         static_cast<Py_ssize_t>(declarations.size())));
    object parts[2];
    unpack(loaded, parts);
    const auto& [made, sources] = parts;
    PyObject* key = nullptr;
    PyObject* code = nullptr;
    for (Py_ssize_t position = 0; PyDict_Next(made.ptr(), &position, &key, &code) != 0;)
        keep_nested_codes(handle(code));
    const object left = object::steal(codes.ptr()); // by an initialisation that failed
    codes = handle(object::borrow(made).release());
    enter_namespace(module_namespace);
    initialised = true;
    set_global("__builtins__"_n, handle(PyEval_GetBuiltins()));
    interpret_statement("offer_sources"_n, {sources});
}

void run_imports() { execute("imports"); }

void define(const native_function& function) {
    connect(function.name, function);
    shorten(execute(function.name), function);
}

void define_class(const char* name, std::initializer_list<native_function> methods) {
    for (const native_function& method : methods)
        connect(name, method);
    const object made = execute(name);
    if (!PyType_Check(made.ptr()))
        return;
    auto* type = reinterpret_cast<PyTypeObject*>(made.ptr());
    for (const native_function& method : methods)
        shorten(handle(foreign_call(_PyType_Lookup, type, detail::text_of(method.name).ptr())), method);
}

void define_generator(const char* name, std::initializer_list<native_function> steps) {
    object made[bound_arguments::most];
    handle enclosed[bound_arguments::most];
    std::size_t count = 0;
    for (const native_function& step : steps) {
        made[count] = new_function(handle(connect(step.name, step)), {});
        shorten(made[count], step);
        enclosed[count] = made[count];
        ++count;
    }
    const object key = detail::text_of(name);
    set_item(module_namespace(), key, new_function(declared_code(key), {enclosed, count}));
}

object nested_function(const frame& in, const char* name, std::initializer_list<handle> enclosed, location at) {
    PyCodeObject* code = nested_code(in.code, name);
    if (code == nullptr)
        throw_error(PyExc_SystemError, "a nested function is not among the declarations", at);
    return new_function(handle(code), {enclosed.begin(), enclosed.size()});
}

callee imported(name declaration, location at) {
    try {
        return {callee(new_function(declared_code(declaration, at), {}), at)(), at};
    } catch (error& raised) {
        raised.traced = true;
        throw;
    }
}

object interpret_statement(name declaration, std::initializer_list<argument> values, location at) {
    try {
        return callee(new_function(declared_code(declaration, at), {}), at)(values);
    } catch (error& raised) {
        const caught_set_aside calling_out;
        object traceback = object::steal(PyException_GetTraceback(raised.value().ptr()));
        if (traceback) { // or the interpreter had no room for the frame
            auto* next = reinterpret_cast<PyObject*>(reinterpret_cast<PyTracebackObject*>(traceback.ptr())->tb_next);
            checked_call(at, PyException_SetTraceback, raised.value().ptr(), next == nullptr ? Py_None : next);
        }
        raise_again(raised);
    }
}

} // namespace corvane::py
