#include "error.hpp"

#include "function.hpp"

namespace corvane::py {

void deallocate(PyObject* owned) {
    thread_end_guard guard;
    Py_DECREF(owned);
    guard.returned();
}

error::error(where line) noexcept : line_(line) {
    if (PyErr_Occurred() == nullptr)
        PyErr_SetString(PyExc_SystemError, "error return without exception set");
    value_ = object::steal(PyErr_GetRaisedException());
}

bool error::matches(handle type, where line) const {
    bool valid = true;
    if (PyTuple_Check(type.ptr())) {
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(type.ptr()); ++i)
            valid = valid && PyExceptionClass_Check(PyTuple_GET_ITEM(type.ptr(), i));
    } else {
        valid = PyExceptionClass_Check(type.ptr());
    }
    if (!valid)
        throw_error(PyExc_TypeError, "catching classes that do not inherit from BaseException is not allowed", line);
    return PyErr_GivenExceptionMatches(value_.ptr(), type.ptr()) != 0;
}

void throw_error(where line) { throw error(line); }

void throw_error(PyObject* type, const char* message, where line) {
    PyErr_SetString(type, message);
    throw error(line);
}

namespace {
/// The checks of the raise statement on what it was given.
object exception_instance(object exception, where line) {
    if (PyExceptionClass_Check(exception.ptr())) {
        object instance = call_at(line, exception);
        if (!PyExceptionInstance_Check(instance.ptr())) {
            PyErr_Format(PyExc_TypeError, "calling %R should have returned an instance of BaseException, not %R",
                         exception.ptr(), Py_TYPE(instance.ptr()));
            throw_error(line);
        }
        return instance;
    }
    if (!PyExceptionInstance_Check(exception.ptr()))
        throw_error(PyExc_TypeError, "exceptions must derive from BaseException", line);
    return exception;
}

error raised_instance(const object& instance, where line) {
    // Unlike PyErr_SetRaisedException, this sets `__context__` to the exception being handled.
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(instance.ptr())), instance.ptr());
    return error(line);
}
} // namespace

error raised(object exception, where line) {
    return raised_instance(exception_instance(std::move(exception), line), line);
}

error raised_from(object exception, handle cause, where line) {
    object instance = exception_instance(std::move(exception), line);
    PyException_SetCause(instance.ptr(), object::borrow(cause).release());
    return raised_instance(instance, line);
}

void raise_unbound(const char* variable, where line) {
    PyErr_Format(PyExc_UnboundLocalError, "cannot access local variable '%s' where it is not associated with a value",
                 variable);
    throw_error(line);
}

except_scope::except_scope(const frame& in, error& caught) noexcept {
    in.trace(caught);
    slot_ = PyThreadState_Get()->exc_info;
    outer_ = object::steal(slot_->exc_value);
    slot_->exc_value = object::borrow(caught.value()).release();
}

except_scope::~except_scope() {
    object inner = object::steal(slot_->exc_value);
    slot_->exc_value = outer_.release();
}

} // namespace corvane::py
