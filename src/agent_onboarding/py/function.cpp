#include "function.hpp"

#include <frameobject.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace corvane::py {

namespace {

/// A name that was looked up, valid while neither dictionary has changed. The value is borrowed from its dictionary.
struct remembered {
    std::uint64_t globals_version;
    std::uint64_t builtins_version;
    PyObject* value;
};

/// The layer's only state. It outlives the module, for function objects can, and ends with the interpreter.
struct interpreter_state {
    std::unique_ptr<object[]> names;
    std::unique_ptr<remembered[]> look_ups;
    object globals;
    object builtins;
    object codes; ///< keeps the code objects of all functions, so that no other can take the place of one
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
    (void)state->codes.release();
    delete state;
    state = nullptr;
}

void intern_names(interpreter_state& fresh) {
    fresh.names = std::make_unique<object[]>(name_count);
    fresh.look_ups = std::make_unique<remembered[]>(name_count);
    for (const name_node* node = first_name; node != nullptr; node = node->next) {
        PyObject* text = detail::text_of(node->text, where::current()).release();
        PyUnicode_InternInPlace(&text);
        fresh.names[node->index] = object::steal(text);
    }
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
    check(PyList_Append(state->codes.ptr(), made->func_code), where::current());
    *native.code = made->func_code;
    state->interpret = made->vectorcall;
    PyFunction_SetVectorcall(made, native.entry);
}

constexpr const char* unreached = "raise SystemError(\"native body not reached\")\n";

} // namespace

name_node::name_node(std::string_view literal) noexcept : text(literal), index(name_count++), next(first_name) {
    first_name = this;
}

name interned(const name_node& node) noexcept { return {state->names[node.index], node.index}; }

// -- Calls ----------------------------------------------------------------------------------------------------------

bound_arguments::bound_arguments(PyFunctionObject* function, PyObject* const* given, std::size_t flagged_count,
                                 PyObject* keywords) {
    const auto* code = reinterpret_cast<PyCodeObject*>(function->func_code);
    const auto positional_given = static_cast<std::size_t>(PyVectorcall_NARGS(flagged_count));
    const auto positional = static_cast<std::size_t>(code->co_argcount);
    count_ = positional + static_cast<std::size_t>(code->co_kwonlyargcount) +
             ((code->co_flags & CO_VARKEYWORDS) != 0 ? 1 : 0);
    if (positional_given == positional && positional == count_ && keywords == nullptr) {
        for (std::size_t place = 0; place < count_; ++place)
            values_[place] = Py_NewRef(given[place]);
        result_ = outcome::bound;
        return;
    }
    for (std::size_t place = 0; place < count_; ++place)
        values_[place] = nullptr;
    result_ = positional_given > positional ? outcome::impossible : bind(function, given, positional_given, keywords);
}

bound_arguments::~bound_arguments() {
    for (std::size_t place = 0; place < count_; ++place)
        drop(values_[place]);
}

bound_arguments::outcome bound_arguments::bind(PyFunctionObject* function, PyObject* const* given,
                                               std::size_t positional_given, PyObject* keywords) {
    auto* code = reinterpret_cast<PyCodeObject*>(function->func_code);
    const auto positional = static_cast<std::size_t>(code->co_argcount);
    const auto parameters = positional + static_cast<std::size_t>(code->co_kwonlyargcount);
    for (std::size_t place = 0; place < positional_given; ++place)
        values_[place] = Py_NewRef(given[place]);
    if ((code->co_flags & CO_VARKEYWORDS) != 0) {
        values_[parameters] = PyDict_New();
        if (values_[parameters] == nullptr)
            return outcome::failed;
    }
    const Py_ssize_t keyword_count = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
    for (Py_ssize_t i = 0; i < keyword_count; ++i) {
        PyObject* name = PyTuple_GET_ITEM(keywords, i);
        if (!PyUnicode_Check(name))
            return outcome::impossible;
        const outcome result =
            bind_keyword(code, parameters, name, given[positional_given + static_cast<std::size_t>(i)]);
        if (result != outcome::bound)
            return result;
    }
    return bind_defaults(function, positional, parameters);
}

/// Puts a keyword argument into its place. Identity first, then `==`, as the interpreter searches.
bound_arguments::outcome bound_arguments::bind_keyword(PyCodeObject* code, std::size_t parameters, PyObject* name,
                                                       PyObject* value) {
    PyObject* const* names = &PyTuple_GET_ITEM(code->co_localsplusnames, 0);
    std::size_t place = 0;
    while (place < parameters && names[place] != name)
        ++place;
    if (place == parameters) {
        for (place = 0; place < parameters; ++place) {
            const int equal = call_out(PyObject_RichCompareBool, name, names[place], Py_EQ);
            if (equal < 0)
                return outcome::failed;
            if (equal > 0)
                break;
        }
    }
    if (place < parameters) {
        if (values_[place] != nullptr)
            return outcome::impossible; // given twice
        values_[place] = Py_NewRef(value);
        return outcome::bound;
    }
    if ((code->co_flags & CO_VARKEYWORDS) == 0)
        return outcome::impossible;
    return call_out(PyDict_SetItem, values_[parameters], name, value) < 0 ? outcome::failed : outcome::bound;
}

/// Fills the places that the call left empty from `__defaults__` and `__kwdefaults__`, as they are at this moment.
bound_arguments::outcome bound_arguments::bind_defaults(PyFunctionObject* function, std::size_t positional,
                                                        std::size_t parameters) {
    const auto defaults =
        static_cast<std::size_t>(function->func_defaults == nullptr ? 0 : PyTuple_GET_SIZE(function->func_defaults));
    for (std::size_t place = 0; place < positional; ++place) {
        if (values_[place] != nullptr)
            continue;
        if (place + defaults < positional)
            return outcome::impossible; // a required argument is missing
        const auto index = static_cast<Py_ssize_t>(place + defaults - positional);
        values_[place] = Py_NewRef(PyTuple_GET_ITEM(function->func_defaults, index));
    }
    for (std::size_t place = positional; place < parameters; ++place) {
        if (values_[place] != nullptr)
            continue;
        if (function->func_kwdefaults == nullptr)
            return outcome::impossible;
        PyObject* name = PyTuple_GET_ITEM(reinterpret_cast<PyCodeObject*>(function->func_code)->co_localsplusnames,
                                          static_cast<Py_ssize_t>(place));
        PyObject* value = PyDict_GetItemWithError(function->func_kwdefaults, name);
        if (value == nullptr)
            return PyErr_Occurred() != nullptr ? outcome::failed : outcome::impossible;
        values_[place] = Py_NewRef(value);
    }
    return outcome::bound;
}

PyObject* interpret(PyObject* callable, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords) {
    return state->interpret(callable, arguments, flagged_count, keywords);
}

PyObject* enter(native_body body, PyFunctionObject* function, PyObject* const* values) {
    // Py_EnterRecursiveCall and Py_LeaveRecursiveCall, with one look-up of the thread instead of two.
    PyThreadState* thread = PyThreadState_Get();
    if (thread->c_recursion_remaining <= 0 && Py_EnterRecursiveCall("") != 0)
        return nullptr;
    --thread->c_recursion_remaining;
    const frame running(function, values);
    PyObject* result = nullptr;
    try {
        result = body(running).release();
    } catch (error& raised) {
        running.trace(raised);
        raised.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    ++thread->c_recursion_remaining;
    return result;
}

// -- The module's namespace -----------------------------------------------------------------------------------------

namespace {
/// Changes with every change of the dictionary. Deprecated for 3.13; this module is for 3.12 alone.
std::uint64_t version_of(const object& dictionary) noexcept {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject*>(dictionary.ptr())->ma_version_tag;
#pragma GCC diagnostic pop
}
} // namespace

found global(name wanted, where line) {
    const std::uint64_t globals_version = version_of(state->globals);
    const std::uint64_t builtins_version = version_of(state->builtins);
    remembered& last = state->look_ups[wanted.index];
    if (last.globals_version == globals_version && last.builtins_version == builtins_version) [[likely]]
        return {object::borrow(last.value), line};

    PyObject* value = call_out(PyDict_GetItemWithError, state->globals.ptr(), wanted.ptr());
    if (value == nullptr && PyErr_Occurred() == nullptr)
        value = call_out(PyDict_GetItemWithError, state->builtins.ptr(), wanted.ptr());
    if (value == nullptr) {
        if (PyErr_Occurred() != nullptr)
            throw_error(line);
        object message = check(PyUnicode_FromFormat("name '%.200U' is not defined", wanted.ptr()), line);
        raise(call_at(line, handle(PyExc_NameError), message, "name"_a = wanted), line);
    }
    last = {globals_version, builtins_version, value};
    return {object::borrow(value), line};
}

void set_global(name changed, handle value, where line) {
    perform(line, PyDict_SetItem, state->globals.ptr(), changed.ptr(), value.ptr());
}

void frame::trace(error& raised) const noexcept {
    if (raised.traced())
        return;
    raised.mark_traced();
    const char* name = "<module>";
    handle globals = module_namespace_;
    if (function_ != nullptr) {
        name = PyUnicode_AsUTF8(reinterpret_cast<PyCodeObject*>(function_->func_code)->co_name);
        globals = handle(function_->func_globals);
    }
    // An error in here may cost the entry, never the exception.
    object code;
    if (name != nullptr)
        code = object::steal(reinterpret_cast<PyObject*>(
            PyCode_NewEmpty(raised.line().file_name(), name, static_cast<int>(raised.line().line()))));
    object entry;
    if (code)
        entry = object::steal(reinterpret_cast<PyObject*>(
            PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code.ptr()), globals.ptr(), nullptr)));
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
        fresh->codes = check(PyList_New(0), where::current());
        if (Py_AtExit(forget) < 0)
            throw_error(PyExc_SystemError, "the interpreter takes no more exit functions", where::current());
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
