#include "object.hpp"

namespace corvane::py {

// Called from destructors, where an exception cannot pass: a compiler that put this function into one, or drew
// conclusions from all its callers, could drop the guard as never reached. The tests of daemon threads then crash.
#if __has_cpp_attribute(gnu::noipa)
[[gnu::noipa]]
#endif
[[gnu::noinline]] void deallocate(PyObject* owned) {
    thread_end_guard guard;
    Py_DECREF(owned);
    guard.returned();
}

} // namespace corvane::py
