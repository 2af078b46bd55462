// libFuzzer with an interpreter inside: each input goes to one function of proof/fuzzing.py, which holds the extension
// beside its Python twin. Whatever that function raises is a finding.
#define PY_SSIZE_T_CLEAN // y# takes a Py_ssize_t
#include <Python.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

PyObject* check = nullptr;

[[noreturn]] void give_up() {
    PyErr_Print();
    std::fflush(nullptr);
    std::abort(); // libFuzzer keeps the input
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    PyConfig config;
    PyConfig_InitPythonConfig(&config);
    config.install_signal_handlers = 0;
    // The interpreter of the checkout's environment, so that its packages are found.
    PyConfig_SetBytesString(&config, &config.program_name, std::getenv("FUZZ_PYTHON"));
    if (PyStatus_Exception(Py_InitializeFromConfig(&config)))
        std::abort();
    PyConfig_Clear(&config);
    PyObject* module = PyImport_ImportModule("proof.fuzzing");
    PyObject* made = module == nullptr ? nullptr
                                       : PyObject_CallMethod(module, "checker", "ss", std::getenv("FUZZ_TARGET"),
                                                             std::getenv("FUZZ_DIR"));
    if (made == nullptr)
        give_up();
    check = made;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    PyObject* result =
        PyObject_CallFunction(check, "y#", reinterpret_cast<const char*>(data), static_cast<Py_ssize_t>(size));
    if (result == nullptr)
        give_up();
    Py_DECREF(result);
    return 0;
}
