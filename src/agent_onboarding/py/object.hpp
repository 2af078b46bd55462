// Ownership of Python objects. `object` owns, `handle` borrows; `borrow`, `steal` and `release` are the only verbs
// that move a reference across the border to the C interface. NULL and -1 never get past this layer.
#pragma once

#include "version.hpp"

#include <unistd.h>

#include <type_traits>
#include <utility>

namespace corvane::py {

/// The C++ line an operation was written on; it becomes the line of the traceback entry. As a default argument it is
/// the caller's line; of std::source_location clang, before version 17, takes the line of the declaration instead.
struct location {
    const char* file;
    unsigned line;
    [[nodiscard]] static constexpr location current(const char* file = __builtin_FILE(),
                                                    unsigned line = __builtin_LINE()) noexcept {
        return {file, line};
    }
};

class callee;

/// Where a C call may run other code, that code may wait for the interpreter's lock; and a daemon thread that waits
/// while the interpreter ends is ended by CPython 3.12 and 3.13 through pthread_exit, which would unwind our frames
/// without a thread state and crash in the first destructor. Like later interpreters, let such a thread sleep until
/// the process is gone. A destructor does it because such an unwinding cannot be caught inside a handler.
struct thread_end_guard {
    bool returned = false;
    ~thread_end_guard() {
        while (!returned)
            pause();
    }
};

/// A C call that may run other code, its result as it is.
template <typename Function, typename... Arguments> auto foreign_call(Function* function, Arguments... arguments) {
    thread_end_guard guard;
    if constexpr (std::is_void_v<decltype(function(arguments...))>) {
        function(arguments...);
        guard.returned = true;
    } else {
        auto result = function(arguments...);
        guard.returned = true;
        return result;
    }
}

// Called from destructors, where an exception cannot pass: a compiler that put this function into one, or drew
// conclusions from all its callers, could drop the guard as never reached. The tests of daemon threads then crash.
#if __has_cpp_attribute(gnu::noipa)
[[gnu::noipa]]
#endif
[[gnu::noinline]] inline void deallocate(PyObject* owned) {
    foreign_call(Py_DecRef, owned);
}

/// Gives a reference back.
inline void drop(PyObject* owned) noexcept {
    if (owned != nullptr && Py_REFCNT(owned) > 1)
        Py_DECREF(owned);
    else if (owned != nullptr)
        deallocate(owned);
}

/// A borrowed reference: whoever passes it keeps the object alive.
class handle {
  public:
    constexpr handle() noexcept = default;
    explicit constexpr handle(PyObject* pointer) noexcept : pointer_(pointer) {}
    /// A type or a function, by its own C struct.
    template <typename Struct>
    explicit handle(Struct* pointer) noexcept : pointer_(reinterpret_cast<PyObject*>(pointer)) {}

    [[nodiscard]] constexpr PyObject* ptr() const noexcept { return pointer_; }
    [[nodiscard]] constexpr bool is(handle other) const noexcept { return pointer_ == other.pointer_; }
    [[nodiscard]] constexpr bool is_none() const noexcept { return pointer_ == Py_None; }
    explicit constexpr operator bool() const noexcept { return pointer_ != nullptr; }

    /// `self.name`
    [[nodiscard]] callee attr(handle name, location at = location::current()) const;

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

} // namespace corvane::py
