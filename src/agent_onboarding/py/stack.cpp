#include "stack.hpp"

#include <pthread.h>

#include <algorithm>
#include <cstddef>

// The oldest versions that the C library offers of these functions: the newer ones, the same code under another
// version, would keep the extension from systems that are older than the one it was built on.
#if defined(__GLIBC__) && defined(__x86_64__)
__asm__(".symver pthread_getattr_np, pthread_getattr_np@GLIBC_2.2.5");
__asm__(".symver pthread_attr_getstack, pthread_attr_getstack@GLIBC_2.2.5");
#elif defined(__GLIBC__) && defined(__aarch64__)
__asm__(".symver pthread_getattr_np, pthread_getattr_np@GLIBC_2.17");
__asm__(".symver pthread_attr_getstack, pthread_attr_getstack@GLIBC_2.17");
#endif

namespace corvane::py {

constinit thread_local stack_bounds this_stack = {};

namespace {
// A body takes 2 KiB at the most. What it calls takes more: a search for a handler, a TLS handshake, dlopen. Threads
// with less than 512 KiB keep a quarter free, which is enough for bodies but not for everything that they call.
constexpr std::size_t most_kept_free = 128 * 1024;

/// Costs a microsecond or, in the main thread, the reading of a file; thus once for each thread.
void measure() {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return; // no descriptor or no memory: the next call tries again
    void* lowest = nullptr;
    std::size_t size = 0;
    if (pthread_attr_getstack(&attributes, &lowest, &size) == 0) {
        const auto end = reinterpret_cast<std::uintptr_t>(lowest);
        this_stack = {.limit = end + std::min(most_kept_free, size / 4), .top = end + size, .end = end};
    }
    pthread_attr_destroy(&attributes);
}
} // namespace

bool may_begin_at(std::uintptr_t address) {
    if (this_stack.top == 0)
        measure();
    // Outside of the thread's stack there is one that somebody else has allocated and knows the size of.
    if (address < this_stack.end || address >= this_stack.limit)
        return true;
    PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
    return false;
}

} // namespace corvane::py
