// Python operations, one C++ expression each. Arguments of one C++ call are evaluated in no fixed order: where two
// operands are themselves operations, they stand on lines of their own.
#pragma once

#include "error.hpp"

#include <iterator>
#include <span>

namespace corvane::py {

/// A value with the line it is used on, for what takes any number of operands or is reported on its caller's line.
struct operand : handle {
    location at;
    // NOLINTNEXTLINE(google-explicit-constructor): the value stands for itself
    operand(handle value, location line = location::current()) noexcept : handle(value), at(line) {}
};

namespace detail {
object call_method(handle self, operand method, std::initializer_list<argument> arguments);
} // namespace detail

/// `self.method(arguments...)` for arguments that are values already: where an argument is itself an operation, the
/// method must be looked up first, by `attr`.
template <typename... Arguments> object invoke(handle self, operand method, const Arguments&... arguments) {
    return detail::call_method(self, method, {argument(arguments)...});
}

inline callee handle::attr(handle name, location at) const {
    return {checked_call(at, PyObject_GetAttr, ptr(), name.ptr()), at};
}
/// An operation of two or three values.
template <auto Function> struct operation {
    auto operator()(handle left, handle right, location at = location::current()) const {
        return checked_call(at, Function, left.ptr(), right.ptr());
    }
    auto operator()(handle self, handle key, handle value, location at = location::current()) const {
        return checked_call(at, Function, self.ptr(), key.ptr(), value.ptr());
    }
};
inline constexpr operation<PyObject_SetAttr> set_attr; ///< `self.name = value`
inline constexpr operation<PyObject_GetItem> get_item; ///< `container[key]`
inline constexpr operation<PyObject_SetItem> set_item; ///< `container[key] = value`
inline constexpr operation<PyNumber_Add> add;
inline constexpr operation<PyNumber_Or> bit_or;
inline constexpr operation<PyNumber_And> bit_and;
inline constexpr operation<PyList_Append> append; ///< `list.append(value)` on a list of ours
inline constexpr operation<PySet_Add> add_to;     ///< `set.add(value)` on a set of ours
/// What a dict itself has for the key, or nothing.
object find(handle dictionary, handle key, location at = location::current());

/// `if value`
inline bool is_true(handle value, location at = location::current()) {
    return PyBool_Check(value.ptr()) ? value.is(true_value()) : checked_call(at, PyObject_IsTrue, value.ptr()) != 0;
}
/// `left == right`, `left != right`, `left < right`, ... as a condition: what the operator returns is tested for truth.
inline bool compare(handle left, int operation, handle right, location at = location::current()) {
    return is_true(checked_call(at, PyObject_RichCompare, left.ptr(), right.ptr(), operation), at);
}
/// `item in container`
inline bool contains(handle container, handle item, location at = location::current()) {
    return checked_call(at, PySequence_Contains, container.ptr(), item.ptr()) != 0;
}

inline object integer(long value, location at = location::current()) { return check(PyLong_FromLong(value), at); }
/// `(first, second, ...)`
template <typename... Items> object tuple(operand first, const Items&... items) {
    return check(PyTuple_Pack(1 + sizeof...(Items), first.ptr(), handle(items).ptr()...), first.at);
}
/// `[]`, `{}`, `set()`
inline object new_list(location at = location::current()) { return check(PyList_New(0), at); }
inline object new_dict(location at = location::current()) { return check(PyDict_New(), at); }
inline object new_set(location at = location::current()) { return check(PySet_New(nullptr), at); }

namespace detail {
inline object text_of(std::string_view literal, location at = location::current()) {
    return check(PyUnicode_FromStringAndSize(literal.data(), static_cast<Py_ssize_t>(literal.size())), at);
}
object joined(std::span<const object> texts, location at);
} // namespace detail

/// `f"..."`: the text forms of values, from left to right. Not inlined: an exception searches the table of all calls of
/// the C++ frame that raises it (a refused call is a tenth faster).
template <typename... Parts> [[gnu::noinline]] object concat(operand first, const Parts&... parts) {
    const object texts[] = {checked_call(first.at, PyObject_Str, first.ptr()),
                            checked_call(first.at, PyObject_Str, handle(parts).ptr())...};
    return detail::joined(texts, first.at);
}
/// `f"{value!r}"`
inline object repr(handle value, location at = location::current()) {
    return checked_call(at, PyObject_Repr, value.ptr());
}
/// `raise type(message)`; inlined for the same half a microsecond as the other `raise`.
[[noreturn, gnu::always_inline]] inline void raise(const callee& type, handle message,
                                                   location at = location::current()) {
    raise(type(message), at);
}

/// What a loop over a dict does between two steps.
inline void check_size(handle dict, Py_ssize_t at_the_start, location at = location::current()) {
    if (PyDict_GET_SIZE(dict.ptr()) != at_the_start)
        throw_error(PyExc_RuntimeError, "dictionary changed size during iteration", at);
}
/// A loop whose length the data decides asks now and then whether a signal handler, Ctrl-C above all, wants to run.
inline void check_signals(location at = location::current()) { checked_call(at, PyErr_CheckSignals); }

/// `for item in iterable`, as a C++ range.
class iterate {
  public:
    explicit iterate(handle iterable, location at = location::current())
        : iterator_(checked_call(at, PyObject_GetIter, iterable.ptr())), at_(at) {}
    // It is its own position; moved, so that nothing else holds an item.
    iterate begin() { return std::move(++*this); }
    [[nodiscard]] static std::default_sentinel_t end() noexcept { return std::default_sentinel; }
    const object& operator*() const noexcept { return item_; }
    iterate& operator++() {
        if (round_++ % rounds_between_checks == 0)
            check_signals(at_);
        item_ = object(); // sooner than Python does, so that a loop over large items holds one at a time
        item_ = object::steal(foreign_call(PyIter_Next, iterator_.ptr()));
        if (!item_ && PyErr_Occurred() != nullptr)
            throw_error(at_);
        return *this;
    }
    bool operator==(std::default_sentinel_t) const noexcept { return !item_; }

  private:
    static constexpr unsigned rounds_between_checks = 64; // a check takes as long as a look-up
    object iterator_;
    object item_;
    location at_;
    unsigned round_ = 0;
};

/// `a, b, ... = value`, as many as wanted, with the interpreter's errors for any other number.
void unpack(handle value, std::span<object> targets, location at = location::current());

/// Enters a context manager; returns its `__exit__` and the value that `__enter__` gave.
std::pair<callee, object> enter_context(handle manager, location at);

/// `with manager as value: body(value)`. A true result of `__exit__` swallows the exception.
template <typename Body> void with(const frame& in, handle manager, Body body, location at = location::current()) {
    auto [exit, value] = enter_context(manager, at);
    try {
        body(handle(value));
    } catch (error& caught) {
        except_scope handling(in, caught);
        object traceback = object::steal(PyException_GetTraceback(caught.value().ptr()));
        object swallow = exit(handle(Py_TYPE(caught.value().ptr())), caught.value(), traceback ? traceback : none());
        if (!is_true(swallow, at))
            raise_again(caught);
        return;
    }
    exit(none(), none(), none());
}

} // namespace corvane::py
