// Python exceptions as C++ exceptions, with the interpreter's own rules for chaining and for tracebacks.
#pragma once

#include "names.hpp"

#include <cxxabi.h>

#include <concepts>
#include <exception>

#ifdef _LIBCPP_VERSION // libc++ has it and does not declare it
namespace __cxxabiv1 {
extern "C" struct __cxa_eh_globals* __cxa_get_globals();
} // namespace __cxxabiv1
#endif

namespace corvane::py {

struct frame;

/// A Python exception on its way through C++. It carries the exception object itself, out of the interpreter's hands
/// while C++ unwinds, and the line that raised it.
class error : public std::exception {
  public:
    /// Takes over the exception that the interpreter has set.
    explicit error(location raised_at) noexcept;
    [[nodiscard]] handle value() const noexcept { return value_; }
    /// `except type:`, which raises TypeError for anything that is not an exception class.
    [[nodiscard]] bool matches(handle type, location line = location::current()) const;
    /// Gives the exception back to the interpreter as it is: no new `__context__`, like a bare `raise`.
    void restore() noexcept { PyErr_SetRaisedException(value_.release()); }

    location at;
    /// A frame adds one traceback entry to an exception, however often the exception is caught and raised again in it.
    bool traced = false;

  private:
    object value_;
};

/// Throws the error that the interpreter has set.
[[noreturn, gnu::cold]] void throw_error(location at = location::current());
[[noreturn, gnu::cold]] void throw_error(PyObject* type, const char* message, location at = location::current());

/// Owns the new reference that a C call returned, or throws the error that it set.
inline object check(PyObject* result, location at = location::current()) {
    if (result == nullptr) [[unlikely]]
        throw_error(at);
    return object::steal(result);
}
/// For C calls that return -1 on error.
template <std::signed_integral Number> Number check(Number result, location at = location::current()) {
    if (result < 0) [[unlikely]]
        throw_error(at);
    return result;
}

/// A C call that may run other code, with its result checked.
template <typename Function, typename... Arguments>
auto checked_call(location at, Function* function, Arguments... arguments) {
    return check(foreign_call(function, arguments...), at);
}

/// What `raise exception` or `raise exception from cause` lets go.
[[nodiscard, gnu::cold]] error raised(handle exception, handle cause, location at);

/// `raise exception`; inlined by hand, for each C++ frame that an exception passes adds half a microsecond.
[[noreturn, gnu::always_inline]] inline void raise(handle exception, location at = location::current()) {
    throw raised(exception, {}, at);
}
/// `raise exception from cause`
[[noreturn]] inline void raise_from(handle exception, handle cause, location at = location::current()) {
    throw raised(exception, cause, at);
}

/// A bare `raise` of what was caught. In an except clause `throw;` would look for it where it has been set aside.
[[noreturn]] inline void raise_again(error& caught) { throw std::move(caught); }

/// A local variable that a swallowed exception may have left without a value.
handle local(const object& value, const char* variable, location at = location::current());

/// While it lives, C++ does not count what the running handler has caught among the thread's caught exceptions. Code
/// that is called from a handler may switch to another greenlet, whose handlers end in another order than they began:
/// C++ would then take one's exception for the other's.
class caught_set_aside {
  public:
    caught_set_aside() noexcept : list_(*caught_of_thread()) { *caught_of_thread() = nullptr; }
    ~caught_set_aside() { *caught_of_thread() = list_; }
    caught_set_aside(caught_set_aside&&) = delete;

  private:
    /// The first member of what the C++ ABI keeps for each thread.
    static void** caught_of_thread() noexcept { return reinterpret_cast<void**>(abi::__cxa_get_globals()); }
    void* list_;
};

/// The body of an except clause, of a finally clause or of `__exit__`: while it lives, the caught exception is the one
/// being handled, so that the interpreter itself sets `__context__` on whatever is raised inside, and callees see it in
/// sys.exc_info(). The slot is swapped directly because PyErr_SetHandledException misses it inside generators.
class except_scope {
  public:
    except_scope(const frame& in, error& caught) noexcept;
    /// `except name:`. The class is looked up now; an exception of another class is thrown on.
    except_scope(const frame& in, error& caught, name type, location at = location::current());
    ~except_scope();
    except_scope(except_scope&&) = delete;

  private:
    caught_set_aside set_aside_; // until the rest is undone, which can run code
    _PyErr_StackItem* slot_;
    object outer_;
};

} // namespace corvane::py
