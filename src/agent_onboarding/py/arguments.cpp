#include "arguments.hpp"

namespace corvane::py {

namespace {
/// From `__defaults__` as it is at this moment.
PyObject* positional_default(PyFunctionObject* function, std::size_t place, std::size_t positional) {
    PyObject* defaults = function->func_defaults;
    const auto count = static_cast<std::size_t>(defaults == nullptr ? 0 : PyTuple_GET_SIZE(defaults));
    return place + count < positional ? nullptr
                                      : PyTuple_GET_ITEM(defaults, static_cast<Py_ssize_t>(place + count - positional));
}

/// From `__kwdefaults__`; not by PyDict_GetItem, for somebody may have put in a key with an `__eq__` of its own.
PyObject* keyword_default(PyFunctionObject* function, PyObject* wanted) {
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    for (Py_ssize_t position = 0; function->func_kwdefaults != nullptr;)
        if (PyDict_Next(function->func_kwdefaults, &position, &name, &value) == 0 || name == wanted)
            break;
    return name == wanted ? value : nullptr;
}
} // namespace

bool bound_arguments::bind(PyFunctionObject* function, PyCodeObject* code, PyObject* const* given,
                           std::size_t positional_given, PyObject* keywords) {
    const auto positional = static_cast<std::size_t>(code->co_argcount);
    const std::size_t named = positional + static_cast<std::size_t>(code->co_kwonlyargcount);
    if (positional_given > positional)
        return false;
    count_ = named + ((code->co_flags & CO_VARKEYWORDS) != 0 ? 1 : 0);
    for (std::size_t place = 0; place < count_; ++place)
        values_[place] = place < positional_given ? Py_NewRef(given[place]) : nullptr;
    if (count_ > named && (values_[named] = PyDict_New()) == nullptr)
        return false;
    PyObject* const* names = &PyTuple_GET_ITEM(code->co_localsplusnames, 0);
    const auto keyword_count = static_cast<std::size_t>(keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords));
    for (std::size_t i = 0; i < keyword_count; ++i) {
        PyObject* name = PyTuple_GET_ITEM(keywords, static_cast<Py_ssize_t>(i));
        PyObject* value = given[positional_given + i];
        if (!PyUnicode_CheckExact(name)) // a subclass can have an `__eq__`, which must run once
            return false;
        std::size_t place = 0;
        while (place < named && names[place] != name && PyUnicode_Compare(names[place], name) != 0)
            ++place;
        if (place < named && values_[place] == nullptr)
            values_[place] = Py_NewRef(value);
        else if (place < named || count_ == named || PyDict_SetItem(values_[named], name, value) < 0)
            return false;
    }
    for (std::size_t place = positional_given; place < named; ++place) {
        if (values_[place] != nullptr)
            continue;
        values_[place] = Py_XNewRef(place < positional ? positional_default(function, place, positional)
                                                       : keyword_default(function, names[place]));
        if (values_[place] == nullptr)
            return false; // a required argument is missing
    }
    return true;
}

} // namespace corvane::py
