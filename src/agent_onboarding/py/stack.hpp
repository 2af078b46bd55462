// The depth of calls: RecursionError before the thread's stack ends.
#pragma once

#include "version.hpp"

namespace corvane::py {

/// Py_EnterRecursiveCall for a native body; false with RecursionError set. Before 3.14 that counts calls only, which
/// says little of larger frames than the interpreter's, and nothing of threads with small stacks.
[[nodiscard]] bool enter_recursion();

} // namespace corvane::py
