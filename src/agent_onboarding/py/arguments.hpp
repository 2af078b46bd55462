// The arguments of a call in the places of the declared parameters, as the interpreter would put them.
#pragma once

#include "object.hpp"

#include <cstddef>

namespace corvane::py {

/// The owned arguments of one call, defaults included.
struct bound_arguments {
    static constexpr std::size_t most = 8; // parameters; more than any function of ours has
    std::size_t count = 0;
    PyObject* values[most];

    bound_arguments() noexcept {} // NOLINT(modernize-use-equals-default): values are set as they are bound
    bound_arguments(const bound_arguments&) = delete;
    bound_arguments& operator=(const bound_arguments&) = delete;
    ~bound_arguments() {
        for (std::size_t place = 0; place < count; ++place)
            drop(values[place]);
    }
    /// Binds only where no code but ours runs: whatever else there is (a keyword name of a class of its own, an
    /// argument that is missing or one too many), the interpreter binds, once.
    bool bind(PyFunctionObject* function, PyCodeObject* code, PyObject* const* given, std::size_t positional_given,
              PyObject* keywords);
};

} // namespace corvane::py
