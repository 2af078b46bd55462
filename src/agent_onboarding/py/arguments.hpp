// The arguments of a call in the places of the declared parameters, as the interpreter would put them.
#pragma once

#include "object.hpp"

namespace corvane::py {

/// The owned arguments of one call, defaults included.
class bound_arguments {
  public:
    bound_arguments(PyFunctionObject* function, PyObject* const* given, std::size_t flagged_count, PyObject* keywords)
        : code_(reinterpret_cast<PyCodeObject*>(function->func_code)) {
        const auto positional_given = static_cast<std::size_t>(PyVectorcall_NARGS(flagged_count));
        const auto positional = static_cast<std::size_t>(code_->co_argcount);
        count_ = positional + static_cast<std::size_t>(code_->co_kwonlyargcount) +
                 ((code_->co_flags & CO_VARKEYWORDS) != 0 ? 1 : 0);
        const bool complete = positional_given == positional && positional == count_ && keywords == nullptr;
        for (std::size_t place = 0; place < count_; ++place)
            values_[place] = complete ? Py_NewRef(given[place]) : nullptr;
        if (!complete)
            result_ =
                positional_given > positional ? outcome::impossible : bind(function, given, positional_given, keywords);
    }
    ~bound_arguments() {
        for (std::size_t place = 0; place < count_; ++place)
            drop(values_[place]);
    }
    bound_arguments(const bound_arguments&) = delete;
    bound_arguments& operator=(const bound_arguments&) = delete;

    enum class outcome { bound, impossible, failed };
    [[nodiscard]] outcome result() const noexcept { return result_; }
    [[nodiscard]] PyObject* const* values() const noexcept { return values_; }
    [[nodiscard]] PyCodeObject* code() const noexcept { return code_; }

  private:
    outcome bind(PyFunctionObject* function, PyObject* const* given, std::size_t positional_given, PyObject* keywords);
    outcome bind_keyword(std::size_t parameters, PyObject* name, PyObject* value);
    outcome bind_defaults(PyFunctionObject* function, std::size_t positional, std::size_t parameters);

    static constexpr std::size_t max_parameters = 8; ///< more than any function of ours has
    PyCodeObject* code_; ///< as the call found it; kept alive by the layer, whatever the function has by now
    std::size_t count_;
    outcome result_ = outcome::bound;
    PyObject* values_[max_parameters];
};

} // namespace corvane::py
