// What differs between the interpreters that this layer is built for. Nothing else asks for a version.
#pragma once

#include <Python.h>

#if PY_VERSION_HEX < 0x030C0000 || PY_VERSION_HEX >= 0x030F0000 || defined(Py_GIL_DISABLED) || defined(PYPY_VERSION)
#error "corvane.agent_onboarding is built for CPython 3.12, 3.13 and 3.14 with the global interpreter lock"
#endif

namespace corvane::py {

/// From 3.14 on Py_EnterRecursiveCall compares the stack pointer with the end of the thread's stack; before, it only
/// counts calls.
inline constexpr bool interpreter_measures_stack = PY_VERSION_HEX >= 0x030E0000;

/// Which of its two special methods a with statement looks up first.
inline constexpr bool exit_is_looked_up_first = PY_VERSION_HEX >= 0x030E0000;

} // namespace corvane::py
