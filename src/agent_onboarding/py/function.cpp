#include "function.hpp"

#include <frameobject.h>
#include <marshal.h>

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace corvane::py {

namespace {

/// The layer's state beside the interned names. It outlives the module, for function objects can, and ends with
/// the interpreter.
struct interpreter_state {
    object globals;
    object builtins;
    object codes; ///< by name, the code that makes each function; keeps the function's own code, see code_of
    std::vector<const void**> bodies; ///< the code_of of every function that was made

    interpreter_state() = default;
    interpreter_state(const interpreter_state&) = delete;
    interpreter_state& operator=(const interpreter_state&) = delete;
    /// A function that somebody has kept is from now on interpreted, and says that its body is missing.
    ~interpreter_state() {
        for (const void** body : bodies)
            *body = nullptr;
    }
};
interpreter_state* state = nullptr;
bool forgets_at_exit = false; // an exit function is called once and then forgotten

vectorcallfunc interpreted = nullptr; // the vectorcall of every function that the interpreter makes

name_node* first_name = nullptr;

/// When the interpreter has ended its objects are gone, and another one may start in this process.
void forget() noexcept {
    forgets_at_exit = false;
    if (state == nullptr)
        return;
    (void)state->globals.release();
    (void)state->builtins.release();
    (void)state->codes.release();
    delete state;
    state = nullptr;
}

} // namespace

name_node::name_node(std::string_view literal) noexcept : text(literal), next(first_name) { first_name = this; }

// -- Calls ----------------------------------------------------------------------------------------------------------

PyObject* interpret(PyObject* callable, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords) {
    return interpreted(callable, arguments, flagged_count, keywords);
}

namespace {
// The interpreter allows for the stack of its own functions. A body of ours takes more, and threads can have small
// stacks.
constexpr int recursion_cost = 4;
} // namespace

bool enter_recursion(PyThreadState* thread) {
    if (thread->c_recursion_remaining > recursion_cost) {
        thread->c_recursion_remaining -= recursion_cost;
        return true;
    }
    if (Py_EnterRecursiveCall("") != 0)
        return false;
    thread->c_recursion_remaining -= recursion_cost - 1;
    return true;
}

void leave_recursion(PyThreadState* thread) noexcept { thread->c_recursion_remaining += recursion_cost; }

// -- The module's namespace -----------------------------------------------------------------------------------------

namespace {
bool is_builtin(handle value, handle name) noexcept {
    return PyCFunction_CheckExact(value.ptr()) && PyCFunction_GET_SELF(value.ptr()) != nullptr &&
           PyModule_Check(PyCFunction_GET_SELF(value.ptr())) &&
           PyModule_GetDict(PyCFunction_GET_SELF(value.ptr())) == detail::builtins.ptr() &&
           PyUnicode_CompareWithASCIIString(name.ptr(),
                                            reinterpret_cast<PyCFunctionObject*>(value.ptr())->m_ml->ml_name) == 0;
}
} // namespace

found detail::look_up(name wanted, where line) {
    const std::uint64_t globals_version = version_of(module_namespace);
    const std::uint64_t builtins_version = version_of(builtins);
    PyObject* value = call_out(PyDict_GetItemWithError, module_namespace.ptr(), wanted.ptr());
    if (value == nullptr && PyErr_Occurred() == nullptr)
        value = call_out(PyDict_GetItemWithError, builtins.ptr(), wanted.ptr());
    if (value == nullptr) {
        if (PyErr_Occurred() != nullptr)
            throw_error(line);
        object message = check(PyUnicode_FromFormat("name '%.200U' is not defined", wanted.ptr()), line);
        raise(call_at(line, handle(PyExc_NameError), message, "name"_a = wanted), line);
    }
    remembered& last = wanted.node->last;
    last.globals_version = globals_version;
    last.builtins_version = builtins_version;
    last.value = value;
    last.builtin = is_builtin(handle(value), wanted);
    return {object::borrow(value), line};
}

object detail::module_attribute(handle self, name wanted, where line) {
    if (!PyModule_CheckExact(self.ptr()))
        return {};
    const handle dictionary(PyModule_GetDict(self.ptr()));
    remembered& last = wanted.node->last;
    if (last.module_version != version_of(dictionary)) {
        PyObject* attribute = call_out(PyDict_GetItemWithError, dictionary.ptr(), wanted.ptr());
        if (attribute == nullptr && PyErr_Occurred() != nullptr)
            throw_error(line);
        if (attribute == nullptr)
            return {}; // the ordinary look-up says what is wrong
        last.module_version = version_of(dictionary);
        last.attribute = attribute;
    }
    return object::borrow(last.attribute);
}

void set_global(name changed, handle value, where line) {
    perform(line, PyDict_SetItem, detail::module_namespace.ptr(), changed.ptr(), value.ptr());
}

object frame::enclosed(Py_ssize_t index, where line) const {
    PyObject* cell = PyTuple_GET_ITEM(function_->func_closure, index);
    object value = object::steal(PyCell_Get(cell));
    if (!value) {
        const object names = check(PyCode_GetFreevars(code_), line);
        PyObject* missing = PyTuple_GET_ITEM(names.ptr(), index);
        object message = check(
            PyUnicode_FromFormat(
                "cannot access free variable '%U' where it is not associated with a value in enclosing scope", missing),
            line);
        raise(call_at(line, handle(PyExc_NameError), message, "name"_a = handle(missing)), line);
    }
    return value;
}

void frame::trace(error& raised) const noexcept {
    if (raised.traced())
        return;
    raised.mark_traced();
    const char* name = "<module>";
    handle globals = module_namespace_;
    if (function_ != nullptr) {
        name = PyUnicode_AsUTF8(code_->co_name);
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

// -- Definitions ----------------------------------------------------------------------------------------------------

namespace {

/// Texts that an earlier initialisation has interned are not given back: it may have been another interpreter's, and
/// they are its own.
void intern_names() {
    for (name_node* node = first_name; node != nullptr; node = node->next) {
        PyObject* text = detail::text_of(node->text, where::current()).release();
        PyUnicode_InternInPlace(&text);
        node->interned = text;
        node->last = {};
    }
}

/// CPython 3.12 gives a code object up twice where it cannot make the function of it. One more reference, never given
/// back, keeps a failed import from ending in a crash.
void keep_nested_codes(handle code) {
    PyObject* constants = reinterpret_cast<PyCodeObject*>(code.ptr())->co_consts;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(constants); ++i) {
        const handle constant(PyTuple_GET_ITEM(constants, i));
        if (PyCode_Check(constant.ptr())) {
            (void)object::borrow(constant).release();
            keep_nested_codes(constant);
        }
    }
}

/// The code of all declarations; makes their source readable for inspect.getsource and for the lines of a traceback.
object load_declarations(std::span<const unsigned char> marshalled) {
    object loaded = check(PyMarshal_ReadObjectFromString(reinterpret_cast<const char*>(marshalled.data()),
                                                         static_cast<Py_ssize_t>(marshalled.size())),
                          where::current());
    object linecache = check(PyImport_ImportModule("linecache"), where::current());
    object cache = check(PyObject_GetAttrString(linecache.ptr(), "cache"), where::current());
    check(PyDict_Update(cache.ptr(), PyTuple_GET_ITEM(loaded.ptr(), 1)), where::current());
    object codes = object::borrow(PyTuple_GET_ITEM(loaded.ptr(), 0));
    PyObject* key = nullptr;
    PyObject* code = nullptr;
    for (Py_ssize_t position = 0; PyDict_Next(codes.ptr(), &position, &key, &code) != 0;)
        keep_nested_codes(handle(code));
    return codes;
}

object declared_code(const char* declaration) {
    object key = check(PyUnicode_FromString(declaration), where::current());
    return get_item(state->codes, key);
}

void execute(const char* declaration, handle locals) {
    object code = declared_code(declaration);
    perform(where::current(), PyEval_EvalCode, code.ptr(), state->globals.ptr(), locals.ptr());
}

/// A function over the module's namespace with these values in its closure.
object new_function(handle code, std::span<const handle> enclosed) {
    if (PyCode_GetNumFree(reinterpret_cast<PyCodeObject*>(code.ptr())) != static_cast<Py_ssize_t>(enclosed.size()))
        throw_error(PyExc_SystemError, "a closure does not fit its declaration", where::current());
    object made = check(PyFunction_New(code.ptr(), state->globals.ptr()), where::current());
    if (enclosed.empty())
        return made;
    object cells = check(PyTuple_New(static_cast<Py_ssize_t>(enclosed.size())), where::current());
    for (std::size_t i = 0; i < enclosed.size(); ++i)
        PyTuple_SET_ITEM(cells.ptr(), static_cast<Py_ssize_t>(i),
                         check(PyCell_New(enclosed[i].ptr()), where::current()).release());
    check(PyFunction_SetClosure(made.ptr(), cells.ptr()), where::current());
    return made;
}

/// Puts the native body into a function that the interpreter has just made.
void attach(handle function, const native_function& native) {
    auto* made = reinterpret_cast<PyFunctionObject*>(function.ptr());
    if (*native.code != made->func_code) {
        state->bodies.push_back(native.code);
        *native.code = made->func_code;
    }
    interpreted = made->vectorcall;
    PyFunction_SetVectorcall(made, native.entry);
}

void attach_methods(const object& owner, std::initializer_list<native_function> methods) {
    for (const native_function& method : methods)
        attach(check(PyObject_GetAttrString(owner.ptr(), method.name), where::current()), method);
}

} // namespace

void start(handle module_namespace, std::span<const unsigned char> declarations) {
    if (state == nullptr) {
        if (!forgets_at_exit && Py_AtExit(forget) < 0)
            throw_error(PyExc_SystemError, "the interpreter takes no more exit functions", where::current());
        forgets_at_exit = true;
        intern_names();
        auto fresh = std::make_unique<interpreter_state>();
        fresh->codes = load_declarations(declarations);
        state = fresh.release();
    }
    state->globals = object::borrow(module_namespace);
    state->builtins = object::borrow(PyEval_GetBuiltins());
    detail::module_namespace = state->globals;
    detail::builtins = state->builtins;
    set_global("__builtins__"_n, state->builtins);
}

void stop() { const std::unique_ptr<interpreter_state> ended(std::exchange(state, nullptr)); }

void run_imports() { execute("imports", state->globals); }

void define(const native_function& function) {
    execute(function.name, state->globals);
    object made = check(PyMapping_GetItemString(state->globals.ptr(), function.name), where::current());
    attach(made, function);
}

void define_class(const char* name, std::initializer_list<native_function> methods) {
    execute(name, state->globals);
    attach_methods(check(PyMapping_GetItemString(state->globals.ptr(), name), where::current()), methods);
}

void define_generator(const char* name, const char* steps_class, std::initializer_list<native_function> steps) {
    object scope = check(PyDict_New(), where::current());
    execute(steps_class, scope);
    object owner = check(PyMapping_GetItemString(scope.ptr(), steps_class), where::current());
    attach_methods(owner, steps);

    object code = declared_code(name);
    object wanted = check(PyCode_GetFreevars(reinterpret_cast<PyCodeObject*>(code.ptr())), where::current());
    std::vector<object> made;
    made.reserve(static_cast<std::size_t>(PyTuple_GET_SIZE(wanted.ptr())));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(wanted.ptr()); ++i)
        made.push_back(perform(where::current(), PyObject_GetAttr, owner.ptr(), PyTuple_GET_ITEM(wanted.ptr(), i)));
    const std::vector<handle> enclosed(made.begin(), made.end());
    object key = check(PyUnicode_FromString(name), where::current());
    set_item(state->globals, key, new_function(code, enclosed));
}

object nested_function(const frame& in, const native_function& function, std::initializer_list<handle> enclosed) {
    PyObject* constants = in.code()->co_consts;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(constants); ++i) {
        PyObject* constant = PyTuple_GET_ITEM(constants, i);
        if (!PyCode_Check(constant) ||
            PyUnicode_CompareWithASCIIString(reinterpret_cast<PyCodeObject*>(constant)->co_name, function.name) != 0)
            continue;
        object made = new_function(handle(constant), {enclosed.begin(), enclosed.size()});
        attach(made, function);
        return made;
    }
    throw_error(PyExc_SystemError, "a nested function is not among the declarations", where::current());
}

object imported(name declaration) {
    object statement = get_item(state->codes, declaration);
    if (PyCode_Check(statement.ptr())) { // the first time
        statement = new_function(statement, {});
        set_item(state->codes, declaration, statement);
    }
    try {
        return call_at(where::current(), statement);
    } catch (error& raised) {
        raised.mark_traced();
        throw;
    }
}

} // namespace corvane::py
