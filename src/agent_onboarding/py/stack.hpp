// The depth of calls: RecursionError before the thread's stack ends.
#pragma once

#include "version.hpp"

#include <cstdint>

namespace corvane::py {

/// The part of a thread's stack in which a body may begin: from `limit` up to `top`. Both 0 until it was measured.
struct stack_bounds {
    std::uintptr_t limit;
    std::uintptr_t top;
    std::uintptr_t end; ///< below `limit` as much is kept free as the deepest body and what it calls may need
};
/// Of the running thread.
extern constinit thread_local stack_bounds this_stack;

/// What remains to be found out where an address is outside of the bounds; false with RecursionError set.
[[nodiscard]] bool may_begin_at(std::uintptr_t address);

/// Py_EnterRecursiveCall for a native body. Before 3.14 that counts calls only, which says little of bodies that take
/// more of the stack than a call of the interpreter's, and nothing of threads with small stacks.
[[nodiscard]] inline bool enter_recursion() {
    if constexpr (!interpreter_measures_stack) {
        const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
        if ((here < this_stack.limit || here >= this_stack.top) && !may_begin_at(here)) [[unlikely]]
            return false;
    }
    return Py_EnterRecursiveCall("") == 0;
}
inline void leave_recursion() noexcept { Py_LeaveRecursiveCall(); }

} // namespace corvane::py
