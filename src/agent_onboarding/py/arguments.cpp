#include "arguments.hpp"

namespace corvane::py {

/// From `__defaults__` or `__kwdefaults__` as they are at this moment. The latter is not asked by PyDict_GetItem, for
/// somebody may have put in a key with an `__eq__` of its own.
static PyObject* default_of(PyFunctionObject* function, std::size_t place, std::size_t positional, PyObject* wanted) {
    if (place < positional) {
        const PyObject* defaults = function->func_defaults;
        const std::size_t count = defaults == nullptr ? 0 : static_cast<std::size_t>(PyTuple_GET_SIZE(defaults));
        const std::size_t from_end = positional - place;
        return from_end > count ? nullptr : PyTuple_GET_ITEM(defaults, static_cast<Py_ssize_t>(count - from_end));
    }
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    Py_ssize_t position = 0;
    while (function->func_kwdefaults != nullptr && PyDict_Next(function->func_kwdefaults, &position, &name, &value))
        if (name == wanted)
            return value;
    return nullptr;
}

bool bound_arguments::bind(PyFunctionObject* function, PyCodeObject* code, PyObject* const* given,
                           std::size_t positional_given, PyObject* keywords) {
    const auto positional = static_cast<std::size_t>(code->co_argcount);
    const std::size_t named = positional + static_cast<std::size_t>(code->co_kwonlyargcount);
    if (positional_given > positional)
        return false;
    count = named + ((code->co_flags & CO_VARKEYWORDS) != 0 ? 1 : 0);
    for (std::size_t place = 0; place < count; ++place)
        values[place] = place < positional_given ? Py_NewRef(given[place]) : nullptr;
    if (count > named)
        values[named] = PyDict_New();
    if (count > named && values[named] == nullptr)
        return false;
    PyObject* const* names = &PyTuple_GET_ITEM(code->co_localsplusnames, 0);
    const Py_ssize_t keyword_count = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
    for (Py_ssize_t i = 0; i < keyword_count; ++i) {
        PyObject* name = PyTuple_GET_ITEM(keywords, i);
        PyObject* value = given[static_cast<Py_ssize_t>(positional_given) + i];
        if (!PyUnicode_CheckExact(name)) // a subclass can have an `__eq__`, which must run once
            return false;
        std::size_t place = 0;
        while (place < named && names[place] != name && PyUnicode_Compare(names[place], name) != 0)
            ++place;
        if (place < named && values[place] == nullptr)
            values[place] = Py_NewRef(value);
        else if (place < named || count == named || PyDict_SetItem(values[named], name, value) < 0)
            return false;
    }
    for (std::size_t place = positional_given; place < named; ++place) {
        if (values[place] == nullptr)
            values[place] = Py_XNewRef(default_of(function, place, positional, names[place]));
        if (values[place] == nullptr)
            return false; // a required argument is missing
    }
    return true;
}

} // namespace corvane::py
