// Ownership of Python objects. `object` owns, `handle` borrows; `borrow`, `steal` and `release` are the only verbs
// that move a reference across the border to the C interface. NULL and -1 never get past this layer.
#pragma once

#include <Python.h>

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <source_location>
#include <string_view>
#include <utility>

namespace corvane::py {

/// The C++ line an operation was written on; it becomes the line of the traceback entry.
using where = std::source_location;

class found;

/// Where a C call may run other code, that code may wait for the interpreter's lock; and a daemon thread that waits
/// while the interpreter ends is ended by CPython 3.12 through pthread_exit, which would unwind our frames without a
/// thread state and crash in the first destructor. Like later interpreters, let such a thread sleep until the process
/// is gone. A destructor does it because such an unwinding cannot be caught inside a handler.
class thread_end_guard {
  public:
    thread_end_guard() noexcept = default;
    thread_end_guard(const thread_end_guard&) = delete;
    thread_end_guard& operator=(const thread_end_guard&) = delete;
    ~thread_end_guard() {
        while (!returned_)
            pause();
    }
    void returned() noexcept { returned_ = true; }

  private:
    bool returned_ = false;
};

template <typename Function, typename... Arguments> auto call_out(Function* function, Arguments... arguments) {
    thread_end_guard guard;
    auto result = function(arguments...);
    guard.returned();
    return result;
}

/// The last reference is gone. Never inlined, for in the middle of a destructor the guard could not stop the unwinding.
[[gnu::noinline, gnu::noipa]] void deallocate(PyObject* owned);

/// Gives a reference back.
inline void drop(PyObject* owned) noexcept {
    if (owned == nullptr)
        return;
    if (Py_REFCNT(owned) > 1)
        Py_DECREF(owned);
    else
        deallocate(owned);
}

/// A borrowed reference: whoever passes it keeps the object alive.
class handle {
  public:
    constexpr handle() noexcept = default;
    explicit constexpr handle(PyObject* pointer) noexcept : pointer_(pointer) {}

    [[nodiscard]] constexpr PyObject* ptr() const noexcept { return pointer_; }
    [[nodiscard]] constexpr bool is(handle other) const noexcept { return pointer_ == other.pointer_; }
    [[nodiscard]] constexpr bool is_none() const noexcept { return pointer_ == Py_None; }
    explicit constexpr operator bool() const noexcept { return pointer_ != nullptr; }

    /// `self.name`
    [[nodiscard]] found attr(struct name wanted, where line = where::current()) const;

  private:
    PyObject* pointer_ = nullptr;
};

/// An owned reference.
class object : public handle {
  public:
    constexpr object() noexcept = default;
    object(const object& other) noexcept : handle(Py_XNewRef(other.ptr())) {}
    object(object&& other) noexcept : handle(other.release()) {}
    object& operator=(object other) noexcept {
        std::swap<handle>(*this, other);
        return *this;
    }
    ~object() { drop(ptr()); }

    /// A new reference beside the caller's.
    [[nodiscard]] static object borrow(PyObject* pointer) noexcept { return object(Py_XNewRef(pointer)); }
    [[nodiscard]] static object borrow(handle other) noexcept { return borrow(other.ptr()); }
    /// Takes over the caller's reference.
    [[nodiscard]] static object steal(PyObject* pointer) noexcept { return object(pointer); }
    /// Hands the reference to the caller and leaves this empty.
    [[nodiscard]] PyObject* release() noexcept {
        PyObject* pointer = ptr();
        static_cast<handle&>(*this) = handle();
        return pointer;
    }

  private:
    explicit object(PyObject* owned) noexcept : handle(owned) {}
};

[[nodiscard]] inline object none() noexcept { return object::borrow(Py_None); }
[[nodiscard]] inline handle true_value() noexcept { return handle(Py_True); }

/// What a name was last found to be, valid while the dictionaries have not changed. Values are borrowed from them. A
/// version is never used twice in one interpreter, whichever the dictionary.
struct remembered {
    std::uint64_t globals_version;
    std::uint64_t builtins_version;
    PyObject* value;
    bool builtin; ///< the function of that name in the builtins
    std::uint64_t module_version;
    PyObject* attribute; ///< of the module whose dictionary has that version
};

/// One literal of the program that is wanted as an interned Python text: a node of a list that the loader threads
/// together before any code runs, so that all of them are interned at once and no lookup can fail later.
struct name_node {
    std::string_view text;
    name_node* next;
    PyObject* interned = nullptr; ///< by the last initialisation; its interpreter's until that has ended
    remembered last = {};

    explicit name_node(std::string_view literal) noexcept;
};

/// An interned text, borrowed for the life of the interpreter. It brings along what it was last found to be.
struct name : handle {
    name_node* node;
};
[[nodiscard]] inline name interned(name_node& node) noexcept { return {handle(node.interned), &node}; }

/// A string literal as a template argument.
template <std::size_t Size> struct literal {
    char text[Size];
    consteval literal(const char (&characters)[Size]) { // NOLINT(google-explicit-constructor): made by the literal
        for (std::size_t i = 0; i < Size; ++i)
            text[i] = characters[i];
    }
};
template <literal Text> inline name_node node_of{{Text.text, sizeof(Text.text) - 1}};

/// The name of a keyword argument; `"mode"_a = value` passes `mode=value`.
struct argument_name {
    handle name;
    struct argument operator=(handle value) const noexcept; // NOLINT(misc-unconventional-assign-operator)
};
struct argument {
    handle name;
    handle value;
};
// NOLINTNEXTLINE(misc-unconventional-assign-operator)
inline argument argument_name::operator=(handle value) const noexcept { return {.name = name, .value = value}; }

inline namespace literals {
/// An interned text: a name to look up, or a constant of the program.
template <literal Text> [[nodiscard]] name operator""_n() noexcept { return interned(node_of<Text>); }
template <literal Text> [[nodiscard]] argument_name operator""_a() noexcept { return {interned(node_of<Text>)}; }
} // namespace literals

} // namespace corvane::py
