// The depth of calls: RecursionError before the thread's stack ends.
#include "function.hpp"

#include <pthread.h>
#include <sys/auxv.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

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

namespace {
// A body takes 2 KiB at the most. What it calls takes more: a search for a handler, a TLS handshake, dlopen. Threads
// with less than 512 KiB keep a quarter free, which is enough for bodies but not for everything that they call.
constexpr std::uintptr_t kibibyte = 1024;
constexpr std::uintptr_t most_kept_free = kibibyte * 128;
// Of the main thread's stack, whatever its limit: the kernel keeps twice as much free below its top for it to grow.
constexpr std::uintptr_t most_of_main_stack = kibibyte * 1024 * 64;
// Its limit can change at any time, so that it is asked for again after this much more of it was used.
constexpr std::uintptr_t main_stack_step = kibibyte * 64;

/// The running thread's stack, all 0 until it was measured: a body may begin from `limit` up to `top`; what lies
/// between `end` and `limit` is kept free for the deepest body and what it calls.
constinit thread_local struct {
    std::uintptr_t end, top, limit;
} bounds = {};

void set_bounds(std::uintptr_t end, std::uintptr_t top, std::uintptr_t asked_again_at = 0) {
    bounds = {end, top, std::max(asked_again_at, end + std::min(most_kept_free, (top - end) / 4))};
}

void measure(std::uintptr_t here) {
    // The main thread's stack grows down from a top at which the kernel puts the program's name. The C library would
    // read a file with a line for each library of the process to say the same.
    const auto* name = reinterpret_cast<const char*>(getauxval(AT_EXECFN)); // NOLINT(performance-no-int-to-ptr)
    rlimit limit{};
    if (name != nullptr && getrlimit(RLIMIT_STACK, &limit) == 0) {
        const auto page = static_cast<std::uintptr_t>(getauxval(AT_PAGESZ));
        const std::uintptr_t top = (reinterpret_cast<std::uintptr_t>(name) + std::strlen(name) + page) / page * page;
        const std::uintptr_t end = top - std::min<std::uintptr_t>(limit.rlim_cur, most_of_main_stack);
        if (here >= end && here < top)
            return set_bounds(end, top, here - main_stack_step);
    }
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return; // no memory: the next call tries again
    void* end = nullptr;
    std::size_t size = 0;
    if (pthread_attr_getstack(&attributes, &end, &size) == 0)
        set_bounds(reinterpret_cast<std::uintptr_t>(end), reinterpret_cast<std::uintptr_t>(end) + size);
    pthread_attr_destroy(&attributes);
}

/// Whether a body may begin at an address outside of the bounds. Outside of the thread's stack altogether there is one
/// that somebody else has allocated and knows the size of.
bool may_begin_at(std::uintptr_t here) {
    if (bounds.top == 0 || (here >= bounds.end && here < bounds.limit))
        measure(here);
    return here < bounds.end || here >= bounds.limit;
}
} // namespace

bool enter_recursion() {
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    if (interpreter_measures_stack || (here >= bounds.limit && here < bounds.top) || may_begin_at(here)) [[likely]]
        return Py_EnterRecursiveCall("") == 0;
    PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
    return false;
}

} // namespace corvane::py
