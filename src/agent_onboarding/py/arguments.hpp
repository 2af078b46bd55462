// The arguments of a call in the places of the declared parameters, as the interpreter would put them.
#pragma once

#include "object.hpp"

#include <cstddef>

namespace corvane::py {

/// The owned arguments of one call, defaults included. Binds only where no code but ours runs: whatever else there is
/// (a keyword name of a class of its own, an argument that is missing or one too many), the interpreter binds.
class bound_arguments {
  public:
    bound_arguments(PyFunctionObject* function, PyCodeObject* code, PyObject* const* given, std::size_t flagged_count,
                    PyObject* keywords);
    ~bound_arguments() {
        for (std::size_t place = 0; place < count_; ++place)
            drop(values_[place]);
    }
    bound_arguments(const bound_arguments&) = delete;
    bound_arguments& operator=(const bound_arguments&) = delete;

    enum class outcome { bound, for_the_interpreter, failed };
    [[nodiscard]] outcome result() const noexcept { return result_; }
    [[nodiscard]] PyObject* const* values() const noexcept { return values_; }

    static constexpr std::size_t max_parameters = 8; ///< more than any function of ours has

  private:
    outcome bind(PyFunctionObject* function, PyObject* const* given, std::size_t positional_given, PyObject* keywords);
    outcome bind_keyword(PyObject* name, PyObject* value);
    outcome bind_defaults(PyFunctionObject* function);

    PyCodeObject* code_; ///< kept alive by the layer
    std::size_t positional_;
    std::size_t parameters_; ///< with those that are keyword-only, without `**`
    std::size_t count_;      ///< with `**`
    outcome result_ = outcome::bound;
    PyObject* values_[max_parameters];
};

} // namespace corvane::py
