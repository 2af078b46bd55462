#include "error.hpp"

#include "function.hpp"

namespace corvane::py {

error::error(location raised_at) noexcept : at(raised_at) {
    if (PyErr_Occurred() == nullptr)
        PyErr_SetString(PyExc_SystemError, "error return without exception set");
    value_ = object::steal(PyErr_GetRaisedException());
}

bool error::matches(handle type, location line) const {
    const bool several = PyTuple_Check(type.ptr());
    for (Py_ssize_t i = 0; i < (several ? PyTuple_GET_SIZE(type.ptr()) : 1); ++i)
        if (!PyExceptionClass_Check(several ? PyTuple_GET_ITEM(type.ptr(), i) : type.ptr()))
            throw_error(PyExc_TypeError, "catching classes that do not inherit from BaseException is not allowed",
                        line);
    return PyErr_GivenExceptionMatches(value_.ptr(), type.ptr()) != 0;
}

void throw_error(location at) { throw error(at); }

void throw_error(PyObject* type, const char* message, location at) {
    foreign_call(PyErr_SetString, type, message);
    throw error(at);
}

error raised(handle exception, handle cause, location at) {
    // The interpreter makes the exception of a class, and words the error for whatever else there is.
    if (!PyExceptionInstance_Check(exception.ptr()))
        cause ? interpret_statement("raise_from"_n, {exception, cause}, at)
              : interpret_statement("raise_exception"_n, {exception}, at);
    if (cause)
        foreign_call(PyException_SetCause, exception.ptr(), object::borrow(cause).release());
    // Unlike PyErr_SetRaisedException, this sets `__context__` to the exception being handled. It asks the class
    // whether it is a subclass of itself, which can change the exception's class, and drops an older context.
    foreign_call(PyErr_SetObject, object::borrow(handle(Py_TYPE(exception.ptr()))).ptr(), exception.ptr());
    return error(at);
}

handle local(const object& value, const char* variable, location at) {
    if (!value) [[unlikely]] {
        PyErr_Format(PyExc_UnboundLocalError,
                     "cannot access local variable '%s' where it is not associated with a value", variable);
        throw_error(at);
    }
    return value;
}

except_scope::except_scope(const frame& in, error& caught) noexcept {
    in.trace(caught);
    slot_ = PyThreadState_Get()->exc_info;
    outer_ = object::steal(slot_->exc_value);
    slot_->exc_value = object::borrow(caught.value()).release();
}

// Once the first constructor is done, an exception in here runs the destructor.
except_scope::except_scope(const frame& in, error& caught, name type, location at) : except_scope(in, caught) {
    if (!caught.matches(global(type, at), at))
        raise_again(caught);
}

except_scope::~except_scope() {
    object inner = object::steal(slot_->exc_value);
    slot_->exc_value = outer_.release();
}

} // namespace corvane::py
