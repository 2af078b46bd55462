// Python operations, one C++ expression each. Arguments of one C++ call are evaluated in no fixed order: where two
// operands are themselves operations, they stand on lines of their own.
#pragma once

#include "error.hpp"

#include <initializer_list>
#include <iterator>
#include <span>
#include <type_traits>

namespace corvane::py {

namespace detail {
template <typename T> constexpr bool is_keyword = std::is_same_v<T, argument>;
inline PyObject* value_of(handle value) noexcept { return value.ptr(); }
inline PyObject* value_of(const argument& keyword) noexcept { return keyword.value.ptr(); }
inline void add_name(PyObject*, Py_ssize_t&, handle) noexcept {}
inline void add_name(PyObject* names, Py_ssize_t& next, const argument& keyword) noexcept {
    PyTuple_SET_ITEM(names, next++, Py_NewRef(keyword.name.ptr()));
}
template <typename... Arguments>
constexpr std::size_t positional_count = (std::size_t{0} + ... + (is_keyword<Arguments> ? 0 : 1));

template <typename... Arguments> object keyword_names(where line, const Arguments&... arguments) {
    object names;
    if constexpr (positional_count<Arguments...> < sizeof...(Arguments)) {
        names = check(PyTuple_New(sizeof...(Arguments) - positional_count<Arguments...>), line);
        Py_ssize_t next = 0;
        (add_name(names.ptr(), next, arguments), ...);
    }
    return names;
}
} // namespace detail

/// `callable(arguments...)`; keyword arguments come last.
template <typename... Arguments> object call_at(where line, handle callable, const Arguments&... arguments) {
    // The free place in front lets a bound method put its self there without copying the rest.
    PyObject* stack[1 + sizeof...(Arguments)] = {nullptr, detail::value_of(arguments)...};
    const object names = detail::keyword_names(line, arguments...);
    return perform(line, PyObject_Vectorcall, callable.ptr(), stack + 1,
                   detail::positional_count<Arguments...> | PY_VECTORCALL_ARGUMENTS_OFFSET, names.ptr());
}

/// `callable(name=value, ...)`. Unlike the arguments of a call, the items of a braced list are evaluated in order, so
/// they may be operations.
object call_at(where line, handle callable, std::initializer_list<argument> keywords);

/// A value that was just looked up; a call of it is reported on the line of the look-up.
class found : public object {
  public:
    found(object value, where line) noexcept : object(std::move(value)), line_(line) {}
    template <typename... Arguments> object operator()(const Arguments&... arguments) const {
        return call_at(line_, *this, arguments...);
    }
    object operator()(std::initializer_list<argument> keywords) const { return call_at(line_, *this, keywords); }

  private:
    where line_;
};

namespace detail {
// Borrowed from the layer's state, which this header does not know, so that a look-up that is remembered is inlined.
inline handle module_namespace;
inline handle builtins;
/// Changes with every change of the dictionary. Deprecated for 3.13; this module is for 3.12 alone.
inline std::uint64_t version_of(handle dictionary) noexcept {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject*>(dictionary.ptr())->ma_version_tag;
#pragma GCC diagnostic pop
}
found look_up(name wanted, where line);
} // namespace detail

/// A name of the module: its namespace, then the builtins, then NameError.
[[nodiscard]] inline found global(name wanted, where line = where::current()) {
    const remembered& last = wanted.node->last;
    if (last.globals_version == detail::version_of(detail::module_namespace) &&
        last.builtins_version == detail::version_of(detail::builtins)) [[likely]]
        return {object::borrow(last.value), line};
    return detail::look_up(wanted, line);
}
/// `global name; name = value`
void set_global(name changed, handle value, where line = where::current());

/// Whether what `global` has just found under the name is the builtin function of that name, not what somebody has put
/// in its place.
[[nodiscard]] inline bool found_builtin(name wanted) noexcept { return wanted.node->last.builtin; }

namespace detail {
/// The attribute of a plain module, without the detour over its type; empty if it is not there or not that simple.
object module_attribute(handle self, name wanted, where line);
} // namespace detail

inline found handle::attr(name wanted, where line) const {
    if (object quick = detail::module_attribute(*this, wanted, line))
        return {std::move(quick), line};
    return {perform(line, PyObject_GetAttr, ptr(), wanted.ptr()), line};
}

/// The name of a method, with the line it is called on.
struct method_name : name {
    where line;
    // NOLINTNEXTLINE(google-explicit-constructor): the name stands for itself
    method_name(name text, where at = where::current()) noexcept : name(text), line(at) {}
};

/// `self.method(arguments...)` for arguments that are values already: where an argument is itself an operation, the
/// method must be looked up first, by `attr`.
template <typename... Arguments> object invoke(handle self, method_name method, const Arguments&... arguments) {
    PyObject* stack[2 + sizeof...(Arguments)] = {nullptr, self.ptr(), detail::value_of(arguments)...};
    const object names = detail::keyword_names(method.line, arguments...);
    const std::size_t positional = 1 + detail::positional_count<Arguments...>;
    return perform(method.line, PyObject_VectorcallMethod, method.ptr(), stack + 1,
                   positional | PY_VECTORCALL_ARGUMENTS_OFFSET, names.ptr());
}

/// `if value`
inline bool is_true(handle value, where line = where::current()) {
    if (value.ptr() == Py_True || value.ptr() == Py_False || value.is_none())
        return value.ptr() == Py_True;
    return perform(line, PyObject_IsTrue, value.ptr()) != 0;
}
/// `left == right`, `left != right`, `left < right`, ... as a condition: the operator's answer is tested for truth.
inline bool compare(handle left, int operation, handle right, where line = where::current()) {
    return is_true(perform(line, PyObject_RichCompare, left.ptr(), right.ptr(), operation), line);
}
/// `item in container`
inline bool contains(handle container, handle item, where line = where::current()) {
    return perform(line, PySequence_Contains, container.ptr(), item.ptr()) != 0;
}
/// `item in (first, second, ...)`
template <typename... Items> bool is_one_of(handle item, const Items&... items) {
    const auto equal = [item](handle other) {
        return perform(where::current(), PyObject_RichCompareBool, other.ptr(), item.ptr(), Py_EQ) != 0;
    };
    return (equal(items) || ...);
}
/// `container[key]`
inline object get_item(handle container, handle key, where line = where::current()) {
    return perform(line, PyObject_GetItem, container.ptr(), key.ptr());
}
/// `container[key] = value`
inline void set_item(handle container, handle key, handle value, where line = where::current()) {
    perform(line, PyObject_SetItem, container.ptr(), key.ptr(), value.ptr());
}
/// `left + right`, `left | right`, `left & right`
inline object add(handle left, handle right, where line = where::current()) {
    return perform(line, PyNumber_Add, left.ptr(), right.ptr());
}
inline object bit_or(handle left, handle right, where line = where::current()) {
    return perform(line, PyNumber_Or, left.ptr(), right.ptr());
}
inline object bit_and(handle left, handle right, where line = where::current()) {
    return perform(line, PyNumber_And, left.ptr(), right.ptr());
}
inline object integer(long value, where line = where::current()) { return check(PyLong_FromLong(value), line); }
template <typename... Items> object tuple(const Items&... items) {
    return check(PyTuple_Pack(sizeof...(Items), handle(items).ptr()...), where::current());
}
/// `self.name = value`
inline void set_attr(handle self, handle name, handle value, where line = where::current()) {
    perform(line, PyObject_SetAttr, self.ptr(), name.ptr(), value.ptr());
}
/// `f"{value!r}"`
inline object repr(handle value, where line = where::current()) { return perform(line, PyObject_Repr, value.ptr()); }

/// A loop whose length the data decides asks now and then whether a signal handler, Ctrl-C above all, wants to run.
inline void check_signals(where line = where::current()) { perform(line, PyErr_CheckSignals); }

/// `for item in iterable`, as a C++ range.
class iterate {
  public:
    explicit iterate(handle iterable, where line = where::current())
        : iterator_(perform(line, PyObject_GetIter, iterable.ptr())), line_(line) {}

    class position {
      public:
        explicit position(const iterate& range) : range_(range) { ++*this; }
        const object& operator*() const noexcept { return item_; }
        position& operator++() {
            if (round_++ % rounds_between_checks == 0)
                check_signals(range_.line_);
            item_ = object(); // sooner than Python does, so that a loop over large items holds one at a time
            item_ = object::steal(call_out(PyIter_Next, range_.iterator_.ptr()));
            if (!item_ && PyErr_Occurred() != nullptr)
                throw_error(range_.line_);
            return *this;
        }
        bool operator==(std::default_sentinel_t) const noexcept { return !item_; }

      private:
        static constexpr unsigned rounds_between_checks = 64; // a check takes as long as a look-up
        const iterate& range_;
        object item_;
        unsigned round_ = 0;
    };
    [[nodiscard]] position begin() const { return position(*this); }
    [[nodiscard]] static std::default_sentinel_t end() noexcept { return std::default_sentinel; }

  private:
    object iterator_;
    where line_;
};

/// `a, b, ... = value`, as many as wanted, with the interpreter's errors for any other number.
void unpack(handle value, std::span<object> targets, where line = where::current());

/// The literal that a message begins with; it brings the line along, which a variadic function cannot.
struct opening {
    std::string_view text;
    where line;
    // NOLINTNEXTLINE(google-explicit-constructor): a message reads as one
    opening(const char* literal, where at = where::current()) noexcept : text(literal), line(at) {}
};

namespace detail {
inline object text_of(std::string_view literal, where line) {
    return check(PyUnicode_FromStringAndSize(literal.data(), static_cast<Py_ssize_t>(literal.size())), line);
}
inline object text_of(handle value, where line) { return perform(line, PyObject_Str, value.ptr()); }
object joined(std::span<const object> texts, where line);
} // namespace detail

/// `f"..."`: literals and the text forms of values, from left to right. Not inlined: an exception searches the table of
/// all calls of the C++ frame that raises it, and most messages are made to be raised.
template <typename... Parts> [[gnu::noinline]] object concat(opening first, const Parts&... parts) {
    const object texts[] = {detail::text_of(first.text, first.line), detail::text_of(parts, first.line)...};
    return detail::joined(texts, first.line);
}

/// A special method, looked up on the type as the interpreter does; empty where the type has none.
object special_method(handle self, handle name, where line);
/// Enters a context manager; answers its `__exit__` and the value that `__enter__` gave.
std::pair<object, object> enter_context(handle manager, where line);

/// `with manager as value: body(value)`. A true result of `__exit__` swallows the exception.
template <typename Body> void with(const frame& in, handle manager, Body body, where line = where::current()) {
    auto [exit, value] = enter_context(manager, line);
    try {
        body(handle(value));
    } catch (error& caught) {
        except_scope handling(in, caught);
        object traceback = object::steal(PyException_GetTraceback(caught.value().ptr()));
        object swallow = call_at(line, exit, handle(reinterpret_cast<PyObject*>(Py_TYPE(caught.value().ptr()))),
                                 caught.value(), traceback ? handle(traceback) : handle(Py_None));
        if (!is_true(swallow, line))
            throw;
        return;
    }
    call_at(line, exit, handle(Py_None), handle(Py_None), handle(Py_None));
}

/// `try: return body()`, `finally: cleanup()`. A clean-up that can raise is no destructor.
template <typename Body, typename Cleanup> object try_finally(const frame& in, Body body, Cleanup cleanup) {
    object result;
    try {
        result = body();
    } catch (error& caught) {
        except_scope handling(in, caught);
        cleanup();
        throw;
    }
    cleanup();
    return result;
}

} // namespace corvane::py
