// The depth of calls: RecursionError before the thread's stack ends.
#pragma once

#include "version.hpp"

#include <cstdint>

namespace corvane::py {

/// The running thread's stack, all 0 until it was measured: a body may begin from `limit` up to `top`; what lies
/// between `end` and `limit` is kept free for the deepest body and what it calls.
struct stack_bounds {
    std::uintptr_t limit, top, end;
};
extern constinit thread_local stack_bounds this_stack;

/// What is to be found out outside of the bounds; false with RecursionError set.
[[nodiscard]] bool may_begin_at(std::uintptr_t address);

/// Py_EnterRecursiveCall for a native body. Before 3.14 that counts calls only, which says little of larger frames than
/// the interpreter's, and nothing of threads with small stacks.
[[nodiscard]] inline bool enter_recursion() {
    if constexpr (!interpreter_measures_stack) {
        const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
        if ((here < this_stack.limit || here >= this_stack.top) && !may_begin_at(here)) [[unlikely]]
            return false;
    }
    return Py_EnterRecursiveCall("") == 0;
}

} // namespace corvane::py
