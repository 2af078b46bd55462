#include "stack.hpp"

#include <pthread.h>
#include <sys/auxv.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
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

constinit thread_local stack_bounds this_stack = {};

namespace {
// A body takes 2 KiB at the most. What it calls takes more: a search for a handler, a TLS handshake, dlopen. Threads
// with less than 512 KiB keep a quarter free, which is enough for bodies but not for everything that they call.
constexpr std::uintptr_t kibibyte = 1024;
constexpr std::uintptr_t most_kept_free = kibibyte * 128;

// Of the main thread's stack, whatever its limit: the kernel keeps twice as much free below its top for it to grow.
constexpr std::uintptr_t most_of_main_stack = kibibyte * 1024 * 64;
// Its limit can change at any time, so that it is asked for again after this much more of it was used.
constexpr std::uintptr_t main_stack_step = kibibyte * 64;

void set_bounds(std::uintptr_t end, std::uintptr_t top) {
    this_stack = {.limit = end + std::min(most_kept_free, (top - end) / 4), .top = top, .end = end};
}

/// The main thread's stack: it grows down from a top at which the kernel puts the program's name. The C library would
/// read a file with a line for each library of the process to say the same.
bool measure_main(std::uintptr_t here) {
    const auto* name = reinterpret_cast<const char*>(getauxval(AT_EXECFN)); // NOLINT(performance-no-int-to-ptr)
    rlimit limit{};
    if (name == nullptr || getrlimit(RLIMIT_STACK, &limit) != 0)
        return false;
    const auto page = static_cast<std::uintptr_t>(getauxval(AT_PAGESZ));
    const std::uintptr_t top = (reinterpret_cast<std::uintptr_t>(name) + std::strlen(name) + page) / page * page;
    const std::uintptr_t end = top - std::min<std::uintptr_t>(limit.rlim_cur, most_of_main_stack);
    if (here < end || here >= top)
        return false;
    set_bounds(end, top);
    this_stack.limit = std::max(this_stack.limit, here - main_stack_step);
    return true;
}

void measure(std::uintptr_t here) {
    pthread_attr_t attributes;
    if (measure_main(here) || pthread_getattr_np(pthread_self(), &attributes) != 0)
        return; // or there is no memory: the next call tries again
    void* end = nullptr;
    std::size_t size = 0;
    if (pthread_attr_getstack(&attributes, &end, &size) == 0)
        set_bounds(reinterpret_cast<std::uintptr_t>(end), reinterpret_cast<std::uintptr_t>(end) + size);
    pthread_attr_destroy(&attributes);
}
} // namespace

bool may_begin_at(std::uintptr_t address) {
    // Outside of the thread's stack there is one that somebody else has allocated and knows the size of.
    if (this_stack.top == 0 || (address >= this_stack.end && address < this_stack.limit))
        measure(address);
    if (address < this_stack.end || address >= this_stack.limit)
        return true;
    PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
    return false;
}

} // namespace corvane::py
