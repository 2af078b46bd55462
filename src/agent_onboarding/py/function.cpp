#include "function.hpp"

#include <frameobject.h>

#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace corvane::py {

namespace {

/// The layer's only state. It outlives the module, for function objects can, and ends with the interpreter.
struct interpreter_state {
    std::unique_ptr<object[]> names;
    object globals;
    object builtins;
    Py_ssize_t body_slot = -1; ///< where a code object of ours keeps its native_function
    vectorcallfunc interpret = nullptr;
};
interpreter_state* state = nullptr;

name_node* first_name = nullptr;
std::size_t name_count = 0;

/// When the interpreter has ended its objects are gone, and another one may start in this process.
void forget() noexcept {
    for (std::size_t i = 0; i < name_count; ++i)
        (void)state->names[i].release();
    (void)state->globals.release();
    (void)state->builtins.release();
    delete state;
    state = nullptr;
}

void intern_names(interpreter_state& fresh) {
    fresh.names = std::make_unique<object[]>(name_count);
    for (const name_node* node = first_name; node != nullptr; node = node->next) {
        PyObject* text = detail::text_of(node->text, where::current()).release();
        PyUnicode_InternInPlace(&text);
        fresh.names[node->index] = object::steal(text);
    }
}

// -- Calls ----------------------------------------------------------------------------------------------------------

enum class binding { bound, impossible, failed };

/// Puts a keyword argument into its place. Identity first, then `==`, as the interpreter searches.
binding bind_keyword(PyCodeObject* code, std::span<object> values, std::size_t parameters, handle name, handle value) {
    PyObject* const* names = &PyTuple_GET_ITEM(code->co_localsplusnames, 0);
    std::size_t place = 0;
    while (place < parameters && names[place] != name.ptr())
        ++place;
    if (place == parameters) {
        for (place = 0; place < parameters; ++place) {
            const int equal = PyObject_RichCompareBool(name.ptr(), names[place], Py_EQ);
            if (equal < 0)
                return binding::failed;
            if (equal > 0)
                break;
        }
    }
    if (place < parameters) {
        if (values[place])
            return binding::impossible; // given twice
        values[place] = object::borrow(value);
        return binding::bound;
    }
    if ((code->co_flags & CO_VARKEYWORDS) == 0)
        return binding::impossible;
    return PyDict_SetItem(values[parameters].ptr(), name.ptr(), value.ptr()) < 0 ? binding::failed : binding::bound;
}

/// Fills the places that the call left empty from `__defaults__` and `__kwdefaults__`, as they are at this moment.
binding bind_defaults(PyFunctionObject* function, std::span<object> values, std::size_t positional,
                      std::size_t parameters) {
    const auto defaults =
        static_cast<std::size_t>(function->func_defaults ? PyTuple_GET_SIZE(function->func_defaults) : 0);
    for (std::size_t place = 0; place < positional; ++place) {
        if (values[place])
            continue;
        if (place + defaults < positional)
            return binding::impossible; // a required argument is missing
        const auto index = static_cast<Py_ssize_t>(place + defaults - positional);
        values[place] = object::borrow(PyTuple_GET_ITEM(function->func_defaults, index));
    }
    for (std::size_t place = positional; place < parameters; ++place) {
        if (values[place])
            continue;
        if (function->func_kwdefaults == nullptr)
            return binding::impossible;
        PyObject* name = PyTuple_GET_ITEM(reinterpret_cast<PyCodeObject*>(function->func_code)->co_localsplusnames,
                                          static_cast<Py_ssize_t>(place));
        PyObject* value = PyDict_GetItemWithError(function->func_kwdefaults, name);
        if (value == nullptr)
            return PyErr_Occurred() ? binding::failed : binding::impossible;
        values[place] = object::borrow(value);
    }
    return binding::bound;
}

binding bind(PyFunctionObject* function, PyObject* const* arguments, std::size_t given, PyObject* keywords,
             std::span<object> values) {
    auto* code = reinterpret_cast<PyCodeObject*>(function->func_code);
    const auto positional = static_cast<std::size_t>(code->co_argcount);
    const auto parameters = positional + static_cast<std::size_t>(code->co_kwonlyargcount);
    if (given > positional)
        return binding::impossible;
    for (std::size_t place = 0; place < given; ++place)
        values[place] = object::borrow(arguments[place]);
    if ((code->co_flags & CO_VARKEYWORDS) != 0) {
        values[parameters] = object::steal(PyDict_New());
        if (!values[parameters])
            return binding::failed;
    }
    const Py_ssize_t keyword_count = keywords ? PyTuple_GET_SIZE(keywords) : 0;
    for (Py_ssize_t i = 0; i < keyword_count; ++i) {
        PyObject* name = PyTuple_GET_ITEM(keywords, i);
        if (!PyUnicode_Check(name))
            return binding::impossible;
        const binding result = bind_keyword(code, values, parameters, handle(name),
                                            handle(arguments[given + static_cast<std::size_t>(i)]));
        if (result != binding::bound)
            return result;
    }
    return given == parameters ? binding::bound : bind_defaults(function, values, positional, parameters);
}

const char* name_of(PyFunctionObject* function) noexcept {
    return static_cast<const char*>(
        PyUnicode_DATA(reinterpret_cast<PyCodeObject*>(function->func_code)->co_name)); // ours are ASCII
}

// Not noexcept, like enter_native: a thread that the interpreter ends with pthread_exit unwinds through here.
PyObject* run_body(native_body body, PyFunctionObject* function, std::span<const object> values) {
    const frame running(name_of(function), handle(function->func_globals), values);
    try {
        return body(running).release();
    } catch (error& raised) {
        running.trace(raised);
        raised.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    return nullptr;
}

/// The vectorcall of every function of ours.
PyObject* enter_native(PyObject* callable, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords) {
    auto* function = reinterpret_cast<PyFunctionObject*>(callable);
    void* native = nullptr;
    if (PyUnstable_Code_GetExtra(function->func_code, state->body_slot, &native) < 0)
        return nullptr;
    if (native == nullptr) // somebody gave the function another `__code__`
        return state->interpret(callable, arguments, flagged_count, keywords);

    std::array<object, max_parameters> values;
    switch (bind(function, arguments, static_cast<std::size_t>(PyVectorcall_NARGS(flagged_count)), keywords, values)) {
    case binding::failed:
        return nullptr;
    case binding::impossible:
        return state->interpret(callable, arguments, flagged_count, keywords);
    case binding::bound:
        break;
    }
    if (Py_EnterRecursiveCall("") != 0)
        return nullptr;
    PyObject* result = run_body(static_cast<const native_function*>(native)->body, function, values);
    Py_LeaveRecursiveCall();
    return result;
}

// -- Definitions ----------------------------------------------------------------------------------------------------

/// Makes the source readable for inspect.getsource and for the lines of a traceback.
void remember_source(const std::string& source, const object& file_name) {
    object text = detail::text_of(source, where::current());
    object lines = text.attr("splitlines"_n)(true_value());
    object length = check(PyLong_FromSsize_t(PyUnicode_GET_LENGTH(text.ptr())), where::current());
    object entry = check(PyTuple_Pack(4, length.ptr(), Py_None, lines.ptr(), file_name.ptr()), where::current());
    object linecache = check(PyImport_ImportModule("linecache"), where::current());
    set_item(linecache.attr("cache"_n), file_name, entry);
}

/// Executes Python source under the file name `<module.name>`, or `<module>` for an empty name.
void execute(const std::string& source, const std::string& name, handle locals) {
    object file_name = concat("<", global("__name__"_n), name.empty() ? "" : ".", name.c_str(), ">");
    remember_source(source, file_name);
    object code =
        check(Py_CompileStringObject(source.c_str(), file_name.ptr(), Py_file_input, nullptr, -1), where::current());
    check(PyEval_EvalCode(code.ptr(), state->globals.ptr(), locals.ptr()), where::current());
}

std::string name_in(const char* declaration) {
    return {declaration, static_cast<std::size_t>(std::strchr(declaration, '(') - declaration)};
}

/// Gives a function that the interpreter has just made its docstring and its native body.
void attach(handle function, const native_function& native) {
    std::string doc = native.signature ? native.signature : native.declaration;
    if (native.doc)
        doc.append("\n").append(native.doc);
    object text = check(PyUnicode_FromStringAndSize(doc.data(), static_cast<Py_ssize_t>(doc.size())), where::current());
    check(PyObject_SetAttr(function.ptr(), "__doc__"_n.ptr(), text.ptr()), where::current());

    auto* made = reinterpret_cast<PyFunctionObject*>(function.ptr());
    check(PyUnstable_Code_SetExtra(made->func_code, state->body_slot, const_cast<native_function*>(&native)),
          where::current());
    state->interpret = made->vectorcall;
    PyFunction_SetVectorcall(made, enter_native);
}

constexpr const char* unreached = "raise SystemError(\"native body not reached\")\n";

} // namespace

name_node::name_node(std::string_view literal) noexcept : text(literal), index(name_count++), next(first_name) {
    first_name = this;
}

handle interned(const name_node& node) noexcept { return state->names[node.index]; }

found global(handle name, where line) {
    PyObject* value = PyDict_GetItemWithError(state->globals.ptr(), name.ptr());
    if (value == nullptr && PyErr_Occurred() == nullptr)
        value = PyDict_GetItemWithError(state->builtins.ptr(), name.ptr());
    if (value == nullptr) {
        if (PyErr_Occurred() != nullptr)
            throw_error(line);
        object message = check(PyUnicode_FromFormat("name '%.200U' is not defined", name.ptr()), line);
        object missing = call_at(line, handle(PyExc_NameError), message, argument{"name"_n, name});
        raise(std::move(missing), line);
    }
    return {object::borrow(value), line};
}

void set_global(handle name, handle value, where line) {
    check(PyDict_SetItem(state->globals.ptr(), name.ptr(), value.ptr()), line);
}

void frame::trace(error& raised) const noexcept {
    if (raised.traced())
        return;
    raised.mark_traced();
    // An error in here may cost the entry, never the exception.
    object code = object::steal(reinterpret_cast<PyObject*>(
        PyCode_NewEmpty(raised.line().file_name(), name_, static_cast<int>(raised.line().line()))));
    object entry;
    if (code)
        entry = object::steal(reinterpret_cast<PyObject*>(
            PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code.ptr()), globals_.ptr(), nullptr)));
    if (!entry) {
        PyErr_Clear();
        return;
    }
    PyErr_SetRaisedException(object::borrow(raised.value()).release());
    (void)PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(entry.ptr()));
    PyErr_Clear();
}

void start(handle module_namespace) {
    if (state == nullptr) {
        auto fresh = std::make_unique<interpreter_state>();
        intern_names(*fresh);
        fresh->body_slot = PyUnstable_Eval_RequestCodeExtraIndex(nullptr);
        if (fresh->body_slot < 0 || Py_AtExit(forget) < 0)
            throw_error(PyExc_SystemError, "the interpreter has no room left for native functions", where::current());
        state = fresh.release();
    }
    state->globals = object::borrow(module_namespace);
    state->builtins = object::borrow(PyEval_GetBuiltins());
    set_global("__builtins__"_n, state->builtins);
}

bool started() noexcept { return state != nullptr; }

void run(const char* source) { execute(source, "", state->globals); }

void define(const native_function& native) {
    const std::string name = name_in(native.declaration);
    execute(std::string("def ") + native.declaration + ":\n    " + unreached, name, state->globals);
    object key = check(PyUnicode_FromString(name.c_str()), where::current());
    attach(get_item(state->globals, key), native);
}

object method(const char* class_name, const native_function& native) {
    const std::string name = name_in(native.declaration);
    const std::string source =
        std::string("class ") + class_name + ":\n    def " + native.declaration + ":\n        " + unreached;
    object scope = check(PyDict_New(), where::current());
    execute(source, std::string(class_name) + "." + name, scope);
    object key = check(PyUnicode_FromString(class_name), where::current());
    object made = get_item(scope, key);
    object function = check(PyObject_GetAttrString(made.ptr(), name.c_str()), where::current());
    attach(function, native);
    return function;
}

} // namespace corvane::py
