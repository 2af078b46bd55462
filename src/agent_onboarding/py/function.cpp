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

/// When the interpreter has ended its objects are gone, and another one may start in this process.
void forget() noexcept {
    stop();
    forget_namespace();
    codes = handle();
    interpreter_of_codes = nobody;
}

/// All code objects inside another one.
template <typename Visit> void visit_nested(PyCodeObject* code, Visit visit) {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(code->co_consts); ++i)
        if (PyObject* constant = PyTuple_GET_ITEM(code->co_consts, i); PyCode_Check(constant)) {
            visit(reinterpret_cast<PyCodeObject*>(constant));
            visit_nested(reinterpret_cast<PyCodeObject*>(constant), visit);
        }
}

PyCodeObject* code_named(handle declaration, location at = location::current()) {
    object code = get_item(codes, declaration, at);
    if (!PyCode_Check(code.ptr()))
        throw_error(PyExc_SystemError, "a declaration is not code", at);
    return reinterpret_cast<PyCodeObject*>(code.ptr()); // alive whatever becomes of `codes`: see start()
}

/// A function over the module's namespace.
callee function_of(PyCodeObject* code, location at = location::current()) {
    return {check(PyFunction_New(handle(code).ptr(), module_namespace().ptr()), at), at};
}

/// Connects the declared code with its native body. The compiler of the declarations has left `...` in the place of
/// what the code calls; the constants are this code object's alone, and nothing has run it yet.
void connect(PyCodeObject* declaration, const native_function& native) {
    PyCodeObject* code = nullptr;
    visit_nested(declaration, [&](PyCodeObject* nested) {
        if (code == nullptr && PyUnicode_CompareWithASCIIString(nested->co_name, native.name) == 0)
            code = nested;
    });
    if (code == nullptr)
        throw_error(PyExc_SystemError, "a function is not among the declarations");
    const int declared = code->co_argcount + code->co_kwonlyargcount + ((code->co_flags & CO_VARKEYWORDS) != 0 ? 1 : 0);
    if (std::cmp_not_equal(declared, native.parameters))
        throw_error(PyExc_SystemError, "a native body has other parameters than its declaration");
    object callable = check(PyCFunction_New(native.interpreted, handle(code).ptr()));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(code->co_consts); ++i)
        if (PyTuple_GET_ITEM(code->co_consts, i) == Py_Ellipsis) {
            Py_SETREF(PyTuple_GET_ITEM(code->co_consts, i), callable.release());
            break;
        }
    *native.code = code;
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

} // namespace

void frame::trace(error& raised) const noexcept {
    if (raised.traced || !module_namespace())
        return;
    raised.traced = true;
    // An error in here may cost the entry, never the exception. The interpreter folds repeated entries of one function,
    // which it knows by the identity of two texts, so that these have to be the same objects each time.
    auto* line = PyCode_NewEmpty(raised.at.file, "", static_cast<int>(raised.at.line));
    const object owner = object::steal(handle(line).ptr());
    object entry;
    if (line != nullptr) {
        PyObject* function = code == nullptr ? "<module>"_n.ptr() : code->co_name;
        PyUnicode_InternInPlace(&line->co_filename);
        Py_SETREF(line->co_name, Py_NewRef(function));
        Py_SETREF(line->co_qualname, Py_NewRef(function));
        entry = object::steal(handle(PyFrame_New(PyThreadState_Get(), line, module_namespace().ptr(), nullptr)).ptr());
    }
    PyErr_Clear();
    if (!entry)
        return;
    PyErr_SetRaisedException(object::borrow(raised.value()).release());
    (void)PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(entry.ptr()));
    PyErr_Clear();
}

void start(handle module_namespace, std::span<const unsigned char> declarations) {
    if (!enter_recursion()) // the thread's stack is measured here, and for most programs not in the middle of a call
        throw_error();
    Py_LeaveRecursiveCall();
    if (interpreter_of_codes == nobody && Py_AtExit(forget) < 0)
        throw_error(PyExc_SystemError, "the interpreter takes no more exit functions");
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
    // CPython 3.12 gives a code object up twice where it cannot make the function of it. One more reference, never
    // given back, keeps a failed import from ending in a crash, and a code alive whatever becomes of `codes`.
    for (Py_ssize_t position = 0; PyDict_Next(made.ptr(), &position, &key, &code) != 0; Py_INCREF(code))
        visit_nested(reinterpret_cast<PyCodeObject*>(code), [](PyCodeObject* nested) { Py_INCREF(nested); });
    const object left = object::steal(codes.ptr()); // by an initialisation that failed
    codes = handle(object::borrow(made).release());
    enter_namespace(module_namespace);
    initialised = true;
    set_global("__builtins__"_n, handle(PyEval_GetBuiltins()));
    interpret_statement("offer_sources"_n, {sources});
}

void define(const char* name, std::initializer_list<native_function> bodies) {
    const object key = detail::text_of(name);
    PyCodeObject* code = code_named(key);
    for (const native_function& body : bodies)
        connect(code, body);
    PyObject* const globals = module_namespace().ptr();
    checked_call(location::current(), PyEval_EvalCode, handle(code).ptr(), globals, globals);
    const object made = find(module_namespace(), key);
    auto* type = made && PyType_Check(made.ptr()) ? reinterpret_cast<PyTypeObject*>(made.ptr()) : nullptr;
    for (const native_function& body : bodies) {
        const object key_of_body = detail::text_of(body.name);
        shorten(type == nullptr ? handle(made) : handle(foreign_call(_PyType_Lookup, type, key_of_body.ptr())), body);
    }
}

void define_generator(const char* name, const native_function& first_step, const native_function& second_step) {
    const auto step = [](const native_function& native) {
        PyCodeObject* declaration = code_named(detail::text_of(native.name));
        connect(declaration, native);
        callee made = function_of(*native.code);
        shorten(made, native);
        return made;
    };
    const object key = detail::text_of(name);
    const object first = step(first_step);
    set_item(module_namespace(), key, function_of(code_named(key))(first, step(second_step)));
}

callee inner_statement(name declaration, std::initializer_list<argument> enclosed, location at) {
    try {
        name_node& known = *declaration.node;
        if (known.change !=
            name_node::for_good) { // of this initialisation; kept by nothing that a collector could clear
            known.value = function_of(code_named(declaration, at), at).release();
            known.change = name_node::for_good;
        }
        return {callee(object::borrow(known.value), at)(enclosed), at};
    } catch (error& raised) {
        raised.traced = true;
        throw;
    }
}

object interpret_statement(name declaration, std::initializer_list<argument> values, location at) {
    try {
        return function_of(code_named(declaration, at), at)(values);
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
