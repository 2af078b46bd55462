#include "names.hpp"

#include "call.hpp"

namespace corvane::py {

// What a look-up finds is remembered until something changes in the module's namespace or in the builtins. Dictionary
// watchers tell of a change before it happens, thus before a value that goes can run code of its own; a version number
// would come too late, for the interpreter's specialised stores destroy the old value first. But another watcher can
// run code before the change is made, too, which finds the old value: with others beside ours nothing is remembered.

namespace {
// Owned, and given back only for another namespace of the same interpreter.
handle globals;
handle builtins;

constexpr int no_watcher = -1; // of an interpreter there are only a few; nothing is remembered then
int watcher = no_watcher;

int count_change(PyDict_WatchEvent /*event*/, PyObject* /*dictionary*/, PyObject* /*key*/, PyObject* /*value*/) {
    ++detail::changes;
    return 0;
}
} // namespace

object detail::look_up(name wanted, location at) {
    const std::uint64_t seen = changes; // read first: a key of the namespace may have an `__eq__` that changes it
    const bool alone = watcher != no_watcher && watchers_of(globals.ptr()) == watchers_of(builtins.ptr()) &&
                       watchers_of(globals.ptr()) == 1U << static_cast<unsigned>(watcher) && !interpreter_is_ending();
    object value = find(globals, wanted, at);
    if (!value)
        value = find(builtins, wanted, at);
    if (!value) {
        object message = check(PyUnicode_FromFormat("name '%.200U' is not defined", wanted.ptr()), at);
        raise(callee(object::borrow(PyExc_NameError), at)(message, "name"_a = wanted), at);
    }
    wanted.node->value = value.ptr();
    wanted.node->change = alone ? seen : 0;
    return value;
}

void set_global(name changed, handle value, location at) {
    checked_call(at, PyDict_SetItem, globals.ptr(), changed.ptr(), value.ptr());
}

handle module_namespace() noexcept { return globals; }

// Texts that an earlier initialisation has interned are not given back: they may be another interpreter's.
void intern_names() {
    for (name_node* node = name_node::first; node != nullptr; node = node->next) {
        PyObject* text = detail::text_of(node->text).release();
        PyUnicode_InternInPlace(&text);
        node->interned = text;
        node->change = 0;
    }
}

void enter_namespace(handle module_namespace) {
    const object left[] = {object::steal(globals.ptr()), object::steal(builtins.ptr())}; // by a failed initialisation
    globals = handle(object::borrow(module_namespace).release());
    builtins = handle(object::borrow(PyEval_GetBuiltins()).release());
    ++detail::changes;
    if (watcher == no_watcher)
        watcher = PyDict_AddWatcher(count_change);
    if (watcher < 0 || PyDict_Watch(watcher, globals.ptr()) < 0 || PyDict_Watch(watcher, builtins.ptr()) < 0) {
        watcher = no_watcher;
        PyErr_Clear();
    }
}

void forget_namespace() noexcept {
    globals = handle();
    builtins = handle();
    watcher = no_watcher;
}

} // namespace corvane::py
