// The arguments of a call in the places of the declared parameters, as the interpreter would put them.
#pragma once

#include "object.hpp"

namespace corvane::py {

/// The owned arguments of one call, defaults included.
class bound_arguments {
  public:
    bound_arguments(PyFunctionObject* function, PyObject* const* given, std::size_t flagged_count, PyObject* keywords);
    ~bound_arguments();
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
    outcome result_;
    PyObject* values_[max_parameters];
};

} // namespace corvane::py
