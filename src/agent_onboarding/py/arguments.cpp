#include "arguments.hpp"

namespace corvane::py {

bound_arguments::bound_arguments(PyFunctionObject* function, PyCodeObject* code, PyObject* const* given,
                                 std::size_t flagged_count, PyObject* keywords)
    : code_(code), positional_(static_cast<std::size_t>(code->co_argcount)),
      parameters_(positional_ + static_cast<std::size_t>(code->co_kwonlyargcount)),
      count_(parameters_ + ((code->co_flags & CO_VARKEYWORDS) != 0 ? 1 : 0)) {
    const auto positional_given = static_cast<std::size_t>(PyVectorcall_NARGS(flagged_count));
    const bool complete = positional_given == count_ && count_ == positional_ && keywords == nullptr;
    for (std::size_t place = 0; place < count_; ++place)
        values_[place] = complete ? Py_NewRef(given[place]) : nullptr;
    if (!complete)
        result_ = positional_given > positional_ ? outcome::for_the_interpreter
                                                 : bind(function, given, positional_given, keywords);
}

bound_arguments::outcome bound_arguments::bind(PyFunctionObject* function, PyObject* const* given,
                                               std::size_t positional_given, PyObject* keywords) {
    for (std::size_t place = 0; place < positional_given; ++place)
        values_[place] = Py_NewRef(given[place]);
    if (count_ > parameters_) {
        values_[parameters_] = PyDict_New();
        if (values_[parameters_] == nullptr)
            return outcome::failed;
    }
    const Py_ssize_t keyword_count = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
    for (Py_ssize_t i = 0; i < keyword_count; ++i) {
        PyObject* value = given[positional_given + static_cast<std::size_t>(i)];
        const outcome result = bind_keyword(PyTuple_GET_ITEM(keywords, i), value);
        if (result != outcome::bound)
            return result;
    }
    return bind_defaults(function);
}

/// Puts a keyword argument into its place.
bound_arguments::outcome bound_arguments::bind_keyword(PyObject* name, PyObject* value) {
    if (!PyUnicode_CheckExact(name)) // a subclass can have an `__eq__`, which must run once
        return outcome::for_the_interpreter;
    PyObject* const* names = &PyTuple_GET_ITEM(code_->co_localsplusnames, 0);
    std::size_t place = 0;
    while (place < parameters_ && names[place] != name)
        ++place;
    if (place == parameters_) { // not found by identity, for not every name is interned
        place = 0;
        while (place < parameters_ && PyUnicode_Compare(names[place], name) != 0)
            ++place;
    }
    if (place < parameters_) {
        if (values_[place] != nullptr)
            return outcome::for_the_interpreter; // given twice
        values_[place] = Py_NewRef(value);
        return outcome::bound;
    }
    if (count_ == parameters_)
        return outcome::for_the_interpreter;
    return PyDict_SetItem(values_[parameters_], name, value) < 0 ? outcome::failed : outcome::bound;
}

/// Fills the places that the call left empty from `__defaults__` and `__kwdefaults__`, as they are at this moment.
bound_arguments::outcome bound_arguments::bind_defaults(PyFunctionObject* function) {
    const auto defaults =
        static_cast<std::size_t>(function->func_defaults == nullptr ? 0 : PyTuple_GET_SIZE(function->func_defaults));
    for (std::size_t place = 0; place < positional_; ++place) {
        if (values_[place] != nullptr)
            continue;
        if (place + defaults < positional_)
            return outcome::for_the_interpreter; // a required argument is missing
        const auto index = static_cast<Py_ssize_t>(place + defaults - positional_);
        values_[place] = Py_NewRef(PyTuple_GET_ITEM(function->func_defaults, index));
    }
    for (std::size_t place = positional_; place < parameters_; ++place) {
        if (values_[place] != nullptr)
            continue;
        PyObject* wanted = PyTuple_GET_ITEM(code_->co_localsplusnames, static_cast<Py_ssize_t>(place));
        PyObject* name = nullptr;
        PyObject* value = nullptr;
        // Not by PyDict_GetItem: somebody may have put a key with an `__eq__` of its own into the dict.
        for (Py_ssize_t position = 0; function->func_kwdefaults != nullptr && name != wanted;)
            if (PyDict_Next(function->func_kwdefaults, &position, &name, &value) == 0)
                break;
        if (name != wanted)
            return outcome::for_the_interpreter;
        values_[place] = Py_NewRef(value);
    }
    return outcome::bound;
}

} // namespace corvane::py
