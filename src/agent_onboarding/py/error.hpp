// Python exceptions as C++ exceptions, with the interpreter's own rules for chaining and for tracebacks.
#pragma once

#include "object.hpp"

#include <concepts>
#include <exception>

namespace corvane::py {

/// A Python exception on its way through C++. It carries the exception object itself, out of the interpreter's hands
/// while C++ unwinds, and the line that raised it.
class error : public std::exception {
  public:
    /// Takes over the exception that the interpreter has set.
    explicit error(where line) noexcept;

    [[nodiscard]] handle value() const noexcept { return value_; }
    [[nodiscard]] const where& line() const noexcept { return line_; }
    [[nodiscard]] const char* what() const noexcept override { return "a Python exception"; }

    /// `except type:`, which raises TypeError for anything that is no exception class.
    [[nodiscard]] bool matches(handle type, where line = where::current()) const;
    /// Gives the exception back to the interpreter as it is: no new `__context__`, like a bare `raise`.
    void restore() noexcept { PyErr_SetRaisedException(value_.release()); }

    /// A frame adds one traceback entry to an exception, however often the exception is caught and raised again in it.
    [[nodiscard]] bool traced() const noexcept { return traced_; }
    void mark_traced() noexcept { traced_ = true; }

  private:
    object value_;
    where line_;
    bool traced_ = false;
};

[[noreturn, gnu::cold, gnu::noinline]] void throw_error(where line);
[[noreturn, gnu::cold, gnu::noinline]] void throw_error(PyObject* type, const char* message, where line);

/// Owns the new reference that a C call returned, or throws the error that it set.
inline object check(PyObject* result, where line) {
    if (result == nullptr) [[unlikely]]
        throw_error(line);
    return object::steal(result);
}
/// For C calls that answer -1 on error.
template <std::signed_integral Number> Number check(Number result, where line) {
    if (result < 0) [[unlikely]]
        throw_error(line);
    return result;
}

/// A C call that may run other code, with its result checked.
template <typename Function, typename... Arguments>
auto perform(where line, Function* function, Arguments... arguments) {
    return check(call_out(function, arguments...), line);
}

/// What `raise exception` lets go: an exception class is called first, and `__context__` is set.
[[nodiscard, gnu::cold]] error raised(object exception, where line);
[[nodiscard, gnu::cold]] error raised_from(object exception, handle cause, where line);

// Inlined, for each C++ frame that an exception passes costs as much as a Python call.

/// `raise exception`
[[noreturn, gnu::always_inline]] inline void raise(object exception, where line = where::current()) {
    throw raised(std::move(exception), line);
}
/// `raise exception from cause`
[[noreturn, gnu::always_inline]] inline void raise_from(object exception, handle cause, where line = where::current()) {
    throw raised_from(std::move(exception), cause, line);
}

[[noreturn]] void raise_unbound(const char* variable, where line);

/// A local variable that a swallowed exception may have left without a value.
inline handle local(const object& value, const char* variable, where line = where::current()) {
    if (!value) [[unlikely]]
        raise_unbound(variable, line);
    return value;
}

class frame;

/// The body of an except clause, of a finally clause or of `__exit__`: while it lives, the caught exception is the one
/// being handled, so that the interpreter itself sets `__context__` on whatever is raised inside, and callees see it in
/// sys.exc_info(). The slot is swapped directly because PyErr_SetHandledException misses it inside generators.
class except_scope {
  public:
    except_scope(const frame& in, error& caught) noexcept;
    ~except_scope();
    except_scope(const except_scope&) = delete;
    except_scope& operator=(const except_scope&) = delete;

  private:
    _PyErr_StackItem* slot_;
    object outer_;
};

} // namespace corvane::py
