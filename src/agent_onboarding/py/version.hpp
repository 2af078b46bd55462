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

/// Whether the interpreter is going away, and with it whoever would tell that a dictionary changes.
#if PY_VERSION_HEX >= 0x030D0000
inline constexpr auto* interpreter_is_ending = Py_IsFinalizing;
#else
inline constexpr auto* interpreter_is_ending = _Py_IsFinalizing;
#endif

/// The watchers of a dictionary, a bit each, without the two of 3.13 and later's own, which run no other code.
[[nodiscard]] inline unsigned watchers_of(PyObject* dictionary) noexcept {
#if PY_VERSION_HEX >= 0x030E0000
    const auto tag = reinterpret_cast<PyDictObject*>(dictionary)->_ma_watcher_tag;
#else
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const auto tag = reinterpret_cast<PyDictObject*>(dictionary)->ma_version_tag;
#pragma GCC diagnostic pop
#endif
    constexpr unsigned foreign = PY_VERSION_HEX >= 0x030D0000 ? 0xFC : 0xFF;
    return static_cast<unsigned>(tag) & foreign;
}

/// Which of its two special methods a with statement looks up first.
inline constexpr bool exit_is_looked_up_first = PY_VERSION_HEX >= 0x030E0000;

} // namespace corvane::py
