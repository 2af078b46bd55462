// The arguments of a call in the places of the declared parameters, as the interpreter would put them.
#pragma once

#include "object.hpp"

#include <cstddef>

namespace corvane::py {

/// The owned arguments of one call, defaults included. Binds only where no code but ours runs: whatever else there is
/// (a keyword name of a class of its own, an argument that is missing or one too many), the interpreter binds, once.
class bound_arguments {
  public:
    bound_arguments(PyFunctionObject* function, PyCodeObject* code, PyObject* const* given, std::size_t flagged_count,
                    PyObject* keywords)
        : bound_(bind(function, code, given, static_cast<std::size_t>(PyVectorcall_NARGS(flagged_count)), keywords)) {}
    ~bound_arguments() {
        for (std::size_t place = 0; place < count_; ++place)
            drop(values_[place]);
    }
    bound_arguments(const bound_arguments&) = delete;
    bound_arguments& operator=(const bound_arguments&) = delete;

    explicit operator bool() const noexcept { return bound_; }
    [[nodiscard]] PyObject* const* values() const noexcept { return values_; }

    static constexpr std::size_t most = 8; ///< parameters; more than any function of ours has

  private:
    bool bind(PyFunctionObject* function, PyCodeObject* code, PyObject* const* given, std::size_t positional_given,
              PyObject* keywords);

    std::size_t count_ = 0;
    PyObject* values_[most];
    bool bound_;
};

} // namespace corvane::py
