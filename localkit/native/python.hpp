// What both modules need of Python: ownership, and errors as exceptions.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <exception>
#include <memory>
#include <new>
#include <stdexcept>

namespace python {

struct give_back {
    void operator()(PyObject* owned) const noexcept { Py_DECREF(owned); }
};
using object = std::unique_ptr<PyObject, give_back>;

/// The Python error is set already.
struct error : std::exception {};

/// Takes what a call returns that gives away ownership.
inline object owned(PyObject* result) {
    if (result == nullptr)
        throw error();
    return object(result);
}

/// For calls that answer -1, or 0 while parsing, when they fail.
inline void require(bool success) {
    if (!success)
        throw error();
}

/// Runs what Python calls; C++ exceptions become Python's, and the answer is `failed`.
template <typename Answer> Answer guarded(Answer failed, auto body) {
    try {
        return body();
    } catch (const error&) { // NOLINT(bugprone-empty-catch): see there
    } catch (const std::invalid_argument& wrong) {
        PyErr_SetString(PyExc_ValueError, wrong.what());
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    return failed;
}

/// Runs what touches nothing of Python, while other threads run. No destructor takes the lock again: as the interpreter
/// ends, that can end the thread, which no destructor may.
void without_lock(auto body) {
    std::exception_ptr failure;
    PyThreadState* const state = PyEval_SaveThread();
    try {
        body();
    } catch (...) {
        failure = std::current_exception();
    }
    PyEval_RestoreThread(state);
    if (failure)
        std::rethrow_exception(failure);
}

inline void add(PyObject* module, const char* name, const object& value) {
    require(PyModule_AddObjectRef(module, name, value.get()) == 0);
}

/// Bytes as items of a format of the module struct; nothing is copied.
inline object cast(const object& bytes, const char* format) {
    const object view = owned(PyMemoryView_FromObject(bytes.get()));
    return owned(PyObject_CallMethod(view.get(), "cast", "s", format));
}

} // namespace python
