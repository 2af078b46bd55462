#include "names.hpp"

#include "call.hpp"

namespace corvane::py {

namespace {
name_node* first_name = nullptr;

// Owned, and given back only for another namespace of the same interpreter.
handle globals;
handle builtins;
} // namespace

name_node::name_node(std::string_view literal) noexcept : text(literal), next(first_name) { first_name = this; }

// Nothing is remembered between look-ups. Whoever remembers must know of a change before the old value's destructor
// runs; a dictionary's version comes after it, and a dictionary watcher's event comes before the new value is there, so
// that another watcher can run code in between which finds, and would have us remember, the old one.
callee global(name wanted, location at) {
    object value = find(globals, wanted, at);
    if (!value)
        value = find(builtins, wanted, at);
    if (!value) {
        object message = check(PyUnicode_FromFormat("name '%.200U' is not defined", wanted.ptr()), at);
        raise(callee(object::borrow(PyExc_NameError), at)(message, "name"_a = wanted), at);
    }
    return {std::move(value), at};
}

void set_global(name changed, handle value, location at) {
    checked_call(at, PyDict_SetItem, globals.ptr(), changed.ptr(), value.ptr());
}

handle module_namespace() noexcept { return globals; }

// Texts that an earlier initialisation has interned are not given back: they may be another interpreter's.
void intern_names() {
    for (name_node* node = first_name; node != nullptr; node = node->next) {
        PyObject* text = detail::text_of(node->text).release();
        PyUnicode_InternInPlace(&text);
        node->interned = text;
    }
}

void enter_namespace(handle module_namespace) {
    const object left[] = {object::steal(globals.ptr()), object::steal(builtins.ptr())}; // by a failed initialisation
    globals = handle(object::borrow(module_namespace).release());
    builtins = handle(object::borrow(PyEval_GetBuiltins()).release());
}

void forget_namespace() noexcept {
    globals = handle();
    builtins = handle();
}

} // namespace corvane::py
