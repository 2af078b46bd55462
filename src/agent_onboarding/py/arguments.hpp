// The arguments of a call in the places of the declared parameters, as the interpreter would put them.
#pragma once

#include "object.hpp"

namespace corvane::py {

/// The owned arguments of one call, defaults included.
struct bound_arguments {
    static constexpr Py_ssize_t most = 8; // parameters; more than any function of ours has
    PyObject* values[most] = {};

    bound_arguments() = default;
    bound_arguments(bound_arguments&&) = delete;
    ~bound_arguments() {
        for (PyObject* value : values)
            drop(value);
    }
    /// Binds only where no code but ours runs: whatever else there is (a keyword name of a class of its own, an
    /// argument that is missing or one too many), the interpreter binds, once.
    bool bind(PyFunctionObject* function, PyObject* const* given, Py_ssize_t positional_given, PyObject* keywords);
};

/// From `__defaults__` or `__kwdefaults__` as they are at this moment. The latter is not asked by PyDict_GetItem, for
/// somebody may have put in a key with an `__eq__` of its own.
inline PyObject* default_of(PyFunctionObject* function, Py_ssize_t place, Py_ssize_t positional, PyObject* wanted) {
    if (place < positional) {
        PyObject* defaults = function->func_defaults;
        const Py_ssize_t index = place - positional + (defaults == nullptr ? 0 : PyTuple_GET_SIZE(defaults));
        return index < 0 ? nullptr : PyTuple_GET_ITEM(defaults, index);
    }
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    Py_ssize_t position = 0;
    while (function->func_kwdefaults != nullptr && PyDict_Next(function->func_kwdefaults, &position, &name, &value))
        if (name == wanted)
            return value;
    return nullptr;
}

inline bool bound_arguments::bind(PyFunctionObject* function, PyObject* const* given, Py_ssize_t positional_given,
                                  PyObject* keywords) {
    auto* code = reinterpret_cast<PyCodeObject*>(function->func_code);
    const Py_ssize_t positional = code->co_argcount;
    const Py_ssize_t named = positional + code->co_kwonlyargcount;
    const bool takes_others = (code->co_flags & CO_VARKEYWORDS) != 0;
    PyObject*& others = values[named]; // for `**kwargs`
    others = takes_others ? PyDict_New() : nullptr;
    if (positional_given > positional || (takes_others && others == nullptr))
        return false;
    for (Py_ssize_t place = 0; place < positional_given; ++place)
        values[place] = Py_NewRef(given[place]);
    PyObject* const* names = &PyTuple_GET_ITEM(code->co_localsplusnames, 0);
    const Py_ssize_t keyword_count = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
    for (Py_ssize_t i = 0; i < keyword_count; ++i) {
        PyObject* name = PyTuple_GET_ITEM(keywords, i);
        PyObject* value = given[positional_given + i];
        if (!PyUnicode_CheckExact(name)) // a subclass can have an `__eq__`, which must run once
            return false;
        Py_ssize_t place = 0;
        while (place < named && names[place] != name && PyUnicode_Compare(names[place], name) != 0)
            ++place;
        if (place < named && values[place] == nullptr)
            values[place] = Py_NewRef(value);
        else if (place < named || others == nullptr || PyDict_SetItem(others, name, value) < 0)
            return false;
    }
    for (Py_ssize_t place = positional_given; place < named; ++place) {
        if (values[place] == nullptr)
            values[place] = Py_XNewRef(default_of(function, place, positional, names[place]));
        if (values[place] == nullptr)
            return false; // a required argument is missing
    }
    return true;
}

} // namespace corvane::py
