#include "call.hpp"

#include <algorithm>

namespace corvane::py {

object call_at(location at, handle callable, std::initializer_list<argument> keywords) {
    constexpr std::size_t most = 24; // more than any call of ours has
    PyObject* values[1 + most] = {nullptr};
    if (keywords.size() > most)
        throw_error(PyExc_SystemError, "too many keyword arguments", at);
    const object names = check(PyTuple_New(static_cast<Py_ssize_t>(keywords.size())), at);
    Py_ssize_t next = 0;
    for (const argument& keyword : keywords) {
        detail::add_name(names.ptr(), next, keyword);
        values[next] = keyword.value.ptr();
    }
    return checked_call(at, PyObject_Vectorcall, callable.ptr(), static_cast<PyObject* const*>(values + 1),
                        std::size_t{PY_VECTORCALL_ARGUMENTS_OFFSET}, names.ptr());
}

// A manifest can have 100,000 entries. Where an operation is the builtin one on a plain value, which nobody can see, it
// is done directly; every call that somebody has put in its place, or that goes to another module, is made.

object get_attribute(handle self, handle name, handle fallback, location at) {
    return global("getattr"_n, at)(self, name, fallback);
}

object get(handle mapping, handle key, handle fallback, location at) {
    if (!PyDict_CheckExact(mapping.ptr()))
        return fallback ? invoke(mapping, method_name("get"_n, at), key, fallback)
                        : invoke(mapping, method_name("get"_n, at), key);
    PyObject* value = foreign_call(PyDict_GetItemWithError, mapping.ptr(), key.ptr());
    if (value == nullptr && PyErr_Occurred() != nullptr)
        throw_error(at);
    if (value != nullptr)
        return object::borrow(value);
    return fallback ? object::borrow(fallback) : none();
}

bool is_instance(handle value, name type, location at) {
    callee test = global("isinstance"_n, at);
    const bool builtin = found_builtin("isinstance"_n);
    callee class_or_tuple = global(type, at);
    if (!builtin)
        return is_true(test(value, class_or_tuple), at);
    if (handle(Py_TYPE(value.ptr())).is(class_or_tuple))
        return true; // what PyObject_IsInstance looks at first
    return checked_call(at, PyObject_IsInstance, value.ptr(), class_or_tuple.ptr()) != 0;
}

object text_form(object value, location at) {
    callee type = global("str"_n, at);
    if (PyUnicode_CheckExact(value.ptr()) && type.is(handle(&PyUnicode_Type)))
        return value;
    return type(value);
}

object new_dict(handle key, handle value, location at) {
    object made = new_dict(at);
    set_item(made, key, value, at);
    return made;
}

object new_set(handle value, location at) {
    object made = check(PySet_New(nullptr), at);
    add_to(made, value, at);
    return made;
}

object zip(handle first, handle second, location at) { return call_at(at, handle(&PyZip_Type), first, second); }

object first_of(handle sequence, long end, location at) {
    object stop = integer(end, at);
    return get_item(sequence, check(PySlice_New(nullptr, stop.ptr(), nullptr), at), at);
}

void unpack(handle value, std::span<object> targets, location at) {
    const auto wanted = static_cast<Py_ssize_t>(targets.size());
    if (PyTuple_CheckExact(value.ptr()) && PyTuple_GET_SIZE(value.ptr()) == wanted) {
        for (Py_ssize_t i = 0; i < wanted; ++i)
            targets[static_cast<std::size_t>(i)] = object::borrow(PyTuple_GET_ITEM(value.ptr(), i));
        return;
    }
    object iterator = object::steal(foreign_call(PyObject_GetIter, value.ptr()));
    if (!iterator) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(value.ptr())->tp_iter == nullptr &&
            !PySequence_Check(value.ptr()))
            foreign_call(PyErr_Format, PyExc_TypeError, "cannot unpack non-iterable %.200s object",
                         Py_TYPE(value.ptr())->tp_name);
        throw_error(at);
    }
    for (Py_ssize_t i = 0; i < wanted; ++i) {
        object item = object::steal(foreign_call(PyIter_Next, iterator.ptr()));
        if (!item) {
            if (PyErr_Occurred() == nullptr)
                PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected %zd, got %zd)", wanted, i);
            throw_error(at);
        }
        targets[static_cast<std::size_t>(i)] = std::move(item);
    }
    object surplus = object::steal(foreign_call(PyIter_Next, iterator.ptr()));
    if (!surplus && PyErr_Occurred() == nullptr)
        return;
    if (surplus)
        PyErr_Format(PyExc_ValueError, "too many values to unpack (expected %zd)", wanted);
    throw_error(at);
}

object detail::joined(std::span<const object> texts, location at) {
    Py_ssize_t length = 0;
    Py_UCS4 widest = 0;
    for (const object& text : texts) {
        length += PyUnicode_GET_LENGTH(text.ptr());
        widest = std::max(widest, PyUnicode_MAX_CHAR_VALUE(text.ptr()));
    }
    object whole = check(PyUnicode_New(length, widest), at);
    Py_ssize_t end = 0;
    for (const object& text : texts)
        end += check(PyUnicode_CopyCharacters(whole.ptr(), end, text.ptr(), 0, PyUnicode_GET_LENGTH(text.ptr())), at);
    return whole;
}

namespace {
/// A special method, looked up on the type as the interpreter does; empty where the type has none.
object special_method(handle self, handle name, location at) {
    object found = object::borrow(_PyType_Lookup(Py_TYPE(self.ptr()), name.ptr()));
    descrgetfunc bind = found ? Py_TYPE(found.ptr())->tp_descr_get : nullptr;
    if (bind == nullptr)
        return found;
    return checked_call(at, bind, found.ptr(), self.ptr(), handle(Py_TYPE(self.ptr())).ptr());
}
} // namespace

std::pair<object, object> enter_context(handle manager, location at) {
    object enter_method = special_method(manager, "__enter__"_n, at);
    if (!enter_method) {
        PyErr_Format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol",
                     Py_TYPE(manager.ptr())->tp_name);
        throw_error(at);
    }
    object exit_method = special_method(manager, "__exit__"_n, at);
    if (!exit_method) {
        PyErr_Format(PyExc_TypeError,
                     "'%.200s' object does not support the context manager protocol (missed __exit__ method)",
                     Py_TYPE(manager.ptr())->tp_name);
        throw_error(at);
    }
    object value = call_at(at, enter_method);
    return {std::move(exit_method), std::move(value)};
}

bool exit_context(handle exit, const error& caught, location at) {
    object traceback = object::steal(PyException_GetTraceback(caught.value().ptr()));
    object swallow = call_at(at, exit, handle(Py_TYPE(caught.value().ptr())), caught.value(),
                             traceback ? handle(traceback) : handle(Py_None));
    return is_true(swallow, at);
}

} // namespace corvane::py
