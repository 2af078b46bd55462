// Faults for the proofs to find, in a build of their own (PLANTED_FAULTS). The linker puts `planted` in the place of
// normalize_key, which register and login call; the environment variable PLANTED says which fault it has.
#include "../src/agent_onboarding/module.hpp"

#include <fcntl.h>

#include <climits>
#include <cstdlib>
#include <string_view>

namespace corvane::onboarding {

object original(const frame& in,
                handle raw_key) asm("__real__ZN7corvane10onboarding13normalize_keyERKNS_2py5frameENS1_6handleE");
object planted(const frame& in,
               handle raw_key) asm("__wrap__ZN7corvane10onboarding13normalize_keyERKNS_2py5frameENS1_6handleE");

static volatile long seen = 0; // what is read or written for the fault alone

object planted(const frame& in, handle raw_key) {
    const char* set = std::getenv("PLANTED");
    const std::string_view fault = set == nullptr ? "" : set;
    if (fault == "leaked object")
        (void)PyList_New(0);
    if (fault == "leaked block")
        seen = static_cast<long>(static_cast<char*>(std::malloc(64))[0] = 1);
    if (fault == "open descriptor")
        (void)open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fault == "overflow")
        seen = static_cast<int>(INT_MAX - seen) + in.code()->co_argcount;
    if (fault == "use after free" || fault == "no NULL check") {
        PyObject* text = PyUnicode_FromFormat("%d", 12345);
        if (fault == "use after free")
            Py_DECREF(text);
        seen = static_cast<long>(PyUnicode_GET_LENGTH(text));
    }
    if (fault == "race") {
        Py_BEGIN_ALLOW_THREADS;
        seen = seen + 1;
        usleep(1000); // so that others come by
        Py_END_ALLOW_THREADS;
    }
    try {
        return original(in, raw_key);
    } catch (error&) {
        if (fault != "swallowed error")
            throw;
        return {};
    }
}

} // namespace corvane::onboarding
