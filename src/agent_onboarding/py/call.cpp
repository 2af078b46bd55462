#include "call.hpp"

#include <algorithm>
#include <vector>

namespace corvane::py {

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

object detail::joined(std::span<const object> texts, where line) {
    Py_ssize_t length = 0;
    Py_UCS4 widest = 0;
    for (const object& text : texts) {
        length += PyUnicode_GET_LENGTH(text.ptr());
        widest = std::max(widest, PyUnicode_MAX_CHAR_VALUE(text.ptr()));
    }
    object whole = check(PyUnicode_New(length, widest), line);
    Py_ssize_t end = 0;
    for (const object& text : texts)
        end += check(PyUnicode_CopyCharacters(whole.ptr(), end, text.ptr(), 0, PyUnicode_GET_LENGTH(text.ptr())), line);
    return whole;
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

std::pair<object, object> enter_context(handle manager, where line) {
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
