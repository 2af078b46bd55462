#include "error.hpp"

#include "function.hpp"

#include <vector>

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

[[noreturn]] void raise_instance(const object& instance, where line) {
    // Unlike PyErr_SetRaisedException, this sets `__context__` to the exception being handled.
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(instance.ptr())), instance.ptr());
    throw_error(line);
}
} // namespace

void raise(object exception, where line) { raise_instance(exception_instance(std::move(exception), line), line); }

void raise_from(object exception, handle cause, where line) {
    object instance = exception_instance(std::move(exception), line);
    PyException_SetCause(instance.ptr(), object::borrow(cause).release());
    raise_instance(instance, line);
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

object call_at(where line, handle callable, std::initializer_list<argument> keywords) {
    const object names = check(PyTuple_New(static_cast<Py_ssize_t>(keywords.size())), line);
    std::vector<PyObject*> values{nullptr};
    Py_ssize_t next = 0;
    for (const argument& keyword : keywords) {
        detail::add_name(names.ptr(), next, keyword);
        values.push_back(keyword.value.ptr());
    }
    return perform(line, PyObject_Vectorcall, callable.ptr(), values.data() + 1,
                   std::size_t{PY_VECTORCALL_ARGUMENTS_OFFSET}, names.ptr());
}

void unpack(handle value, std::span<object> targets, where line) {
    const auto wanted = static_cast<Py_ssize_t>(targets.size());
    if (PyTuple_CheckExact(value.ptr()) && PyTuple_GET_SIZE(value.ptr()) == wanted) {
        for (Py_ssize_t i = 0; i < wanted; ++i)
            targets[static_cast<std::size_t>(i)] = object::borrow(PyTuple_GET_ITEM(value.ptr(), i));
        return;
    }
    object iterator = object::steal(call_out(PyObject_GetIter, value.ptr()));
    if (!iterator) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(value.ptr())->tp_iter == nullptr &&
            !PySequence_Check(value.ptr()))
            PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(value.ptr())->tp_name);
        throw_error(line);
    }
    for (Py_ssize_t i = 0; i < wanted; ++i) {
        object item = object::steal(call_out(PyIter_Next, iterator.ptr()));
        if (!item) {
            if (PyErr_Occurred() == nullptr)
                PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected %zd, got %zd)", wanted, i);
            throw_error(line);
        }
        targets[static_cast<std::size_t>(i)] = std::move(item);
    }
    object surplus = object::steal(call_out(PyIter_Next, iterator.ptr()));
    if (!surplus && PyErr_Occurred() == nullptr)
        return;
    if (surplus)
        PyErr_Format(PyExc_ValueError, "too many values to unpack (expected %zd)", wanted);
    throw_error(line);
}

object special_method(handle self, handle name, where line) {
    PyObject* attribute = _PyType_Lookup(Py_TYPE(self.ptr()), name.ptr());
    if (attribute == nullptr)
        return {};
    object kept = object::borrow(attribute);
    descrgetfunc bind = Py_TYPE(attribute)->tp_descr_get;
    if (bind == nullptr)
        return kept;
    return perform(line, bind, attribute, self.ptr(), reinterpret_cast<PyObject*>(Py_TYPE(self.ptr())));
}

std::pair<object, object> enter(handle manager, where line) {
    object enter_method = special_method(manager, "__enter__"_n, line);
    if (!enter_method) {
        PyErr_Format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol",
                     Py_TYPE(manager.ptr())->tp_name);
        throw_error(line);
    }
    object exit_method = special_method(manager, "__exit__"_n, line);
    if (!exit_method) {
        PyErr_Format(PyExc_TypeError,
                     "'%.200s' object does not support the context manager protocol (missed __exit__ method)",
                     Py_TYPE(manager.ptr())->tp_name);
        throw_error(line);
    }
    object value = call_at(line, enter_method);
    return {std::move(exit_method), std::move(value)};
}

} // namespace corvane::py
