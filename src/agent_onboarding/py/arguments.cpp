#include "arguments.hpp"

namespace corvane::py {

bound_arguments::outcome bound_arguments::bind(PyFunctionObject* function, PyObject* const* given,
                                               std::size_t positional_given, PyObject* keywords) {
    const auto positional = static_cast<std::size_t>(code_->co_argcount);
    const auto parameters = positional + static_cast<std::size_t>(code_->co_kwonlyargcount);
    for (std::size_t place = 0; place < positional_given; ++place)
        values_[place] = Py_NewRef(given[place]);
    if ((code_->co_flags & CO_VARKEYWORDS) != 0) {
        values_[parameters] = PyDict_New();
        if (values_[parameters] == nullptr)
            return outcome::failed;
    }
    const Py_ssize_t keyword_count = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
    for (Py_ssize_t i = 0; i < keyword_count; ++i) {
        PyObject* name = PyTuple_GET_ITEM(keywords, i);
        if (!PyUnicode_Check(name))
            return outcome::impossible;
        const outcome result = bind_keyword(parameters, name, given[positional_given + static_cast<std::size_t>(i)]);
        if (result != outcome::bound)
            return result;
    }
    return bind_defaults(function, positional, parameters);
}

/// Puts a keyword argument into its place. Identity first, then `==`, as the interpreter searches.
bound_arguments::outcome bound_arguments::bind_keyword(std::size_t parameters, PyObject* name, PyObject* value) {
    PyObject* const* names = &PyTuple_GET_ITEM(code_->co_localsplusnames, 0);
    std::size_t place = 0;
    while (place < parameters && names[place] != name)
        ++place;
    if (place == parameters) {
        for (place = 0; place < parameters; ++place) {
            const int equal = call_out(PyObject_RichCompareBool, name, names[place], Py_EQ);
            if (equal < 0)
                return outcome::failed;
            if (equal > 0)
                break;
        }
    }
    if (place < parameters) {
        if (values_[place] != nullptr)
            return outcome::impossible; // given twice
        values_[place] = Py_NewRef(value);
        return outcome::bound;
    }
    if ((code_->co_flags & CO_VARKEYWORDS) == 0)
        return outcome::impossible;
    return call_out(PyDict_SetItem, values_[parameters], name, value) < 0 ? outcome::failed : outcome::bound;
}

/// Fills the places that the call left empty from `__defaults__` and `__kwdefaults__`, as they are at this moment.
bound_arguments::outcome bound_arguments::bind_defaults(PyFunctionObject* function, std::size_t positional,
                                                        std::size_t parameters) {
    const auto defaults =
        static_cast<std::size_t>(function->func_defaults == nullptr ? 0 : PyTuple_GET_SIZE(function->func_defaults));
    for (std::size_t place = 0; place < positional; ++place) {
        if (values_[place] != nullptr)
            continue;
        if (place + defaults < positional)
            return outcome::impossible; // a required argument is missing
        const auto index = static_cast<Py_ssize_t>(place + defaults - positional);
        values_[place] = Py_NewRef(PyTuple_GET_ITEM(function->func_defaults, index));
    }
    for (std::size_t place = positional; place < parameters; ++place) {
        if (values_[place] != nullptr)
            continue;
        if (function->func_kwdefaults == nullptr)
            return outcome::impossible;
        PyObject* name = PyTuple_GET_ITEM(code_->co_localsplusnames, static_cast<Py_ssize_t>(place));
        PyObject* value = call_out(PyDict_GetItemWithError, function->func_kwdefaults, name);
        if (value == nullptr)
            return PyErr_Occurred() != nullptr ? outcome::failed : outcome::impossible;
        values_[place] = Py_NewRef(value);
    }
    return outcome::bound;
}

} // namespace corvane::py
