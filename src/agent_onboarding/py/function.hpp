// Real function objects with native bodies.
//
// The declaration line of each function is compiled by the interpreter, so signature, defaults, annotations, binding
// as a method, pickling and every word of an argument error are its own; only then the function's vectorcall is set to
// ours (PyFunction_SetVectorcall, CPython 3.12). Our entry binds well-formed calls and hands all others to the
// function's original vectorcall, which raises.
#pragma once

#include "call.hpp"

#include <array>
#include <span>

namespace corvane::py {

/// More than any function of ours has.
inline constexpr std::size_t max_parameters = 8;

/// One running native body: its arguments, in the order of the declaration, and where its tracebacks point.
class frame {
  public:
    frame(const char* name, handle globals, std::span<const object> values) noexcept
        : name_(name), globals_(globals), values_(values) {}

    [[nodiscard]] handle operator[](std::size_t index) const noexcept { return values_[index]; }
    /// Adds this frame to the traceback, as the interpreter does where an exception leaves a frame or is caught in it.
    void trace(error& raised) const noexcept;

  private:
    const char* name_;
    handle globals_;
    std::span<const object> values_;
};

using native_body = object (*)(const frame& in);

/// What the interpreter compiles, and the body that runs instead.
struct native_function {
    const char* declaration; ///< what stands between `def ` and the colon
    native_body body;
    const char* doc;                 ///< the text after the signature line, or nullptr for the signature line alone
    const char* signature = nullptr; ///< the first line of the docstring where it is not the declaration
};

/// Interns the names of the program and remembers the namespace in which functions look names up. Called at the start
/// of an initialisation; what it stores stays until the interpreter is gone, because functions can outlive the module.
void start(handle module_namespace);
/// True between `start` and the end of the interpreter.
[[nodiscard]] bool started() noexcept;

/// Executes statements in the module's namespace. Their source, like each declaration, is known to linecache.
void run(const char* source);
/// Defines the function in the module's namespace.
void define(const native_function& function);
/// The function as a class body would define it, for `class_name`.
[[nodiscard]] object method(const char* class_name, const native_function& function);

} // namespace corvane::py
