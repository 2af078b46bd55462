// The texts of the program, interned, and what they stand for in the module's namespace.
#pragma once

#include "object.hpp"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace corvane::py {

/// One literal of the program that is wanted as an interned Python text: a node of a list that the loader threads
/// together before any code runs, so that all of them are interned at once and no look-up can fail later.
struct name_node {
    std::string_view text;
    name_node* next;
    PyObject* interned = nullptr; ///< by the last initialisation; its interpreter's until that has ended
    PyObject* value = nullptr;    ///< what the name was last found to be, borrowed; or its statement's function
    std::uint64_t change = 0;     ///< how many changes had been seen then
    static constexpr std::uint64_t for_good = ~std::uint64_t{0}; ///< for a value that no change concerns
    explicit name_node(std::string_view literal) noexcept : text(literal), next(std::exchange(first, this)) {}
    static inline name_node* first = nullptr;
};

/// An interned text, borrowed for the life of the interpreter. It brings along what it was last found to be.
struct name : handle {
    name_node* node;
};
[[nodiscard]] inline name interned(name_node& node) noexcept { return {handle(node.interned), &node}; }

/// A string literal as a template argument.
template <std::size_t Size> struct literal {
    char text[Size];
    consteval literal(const char (&characters)[Size]) { // NOLINT(google-explicit-constructor): made by the literal
        for (std::size_t i = 0; i < Size; ++i)
            text[i] = characters[i];
    }
};
template <literal Text> inline name_node node_of{{Text.text, sizeof(Text.text) - 1}};

/// An argument of a call; a keyword argument has a name.
struct argument {
    // NOLINTNEXTLINE(google-explicit-constructor): a value stands for itself
    argument(handle given) noexcept : value(given) {}
    argument(handle keyword, handle given) noexcept : name(keyword), value(given) {}
    handle name;
    handle value;
};
/// `"mode"_a = value` passes `mode=value`.
struct argument_name : handle {
    // NOLINTNEXTLINE(misc-unconventional-assign-operator): it makes an argument and assigns nothing
    argument operator=(handle value) const noexcept { return {*this, value}; }
};

/// An interned text: a name to look up, or a constant of the program.
template <literal Text> [[nodiscard]] name operator""_n() noexcept { return interned(node_of<Text>); }
template <literal Text> [[nodiscard]] argument_name operator""_a() noexcept { return {interned(node_of<Text>)}; }

/// A value that was just looked up; a call of it is reported on the line of the look-up.
class callee : public object {
  public:
    callee(object value, location at) noexcept : object(std::move(value)), at_(at) {}
    /// `self(arguments...)`; keyword arguments come last. The items of a braced list are evaluated in their order,
    /// other arguments in none: these must be values already, but for one.
    object operator()(std::initializer_list<argument> arguments) const;
    template <typename... Arguments> object operator()(const Arguments&... arguments) const {
        return (*this)({argument(arguments)...});
    }

  private:
    location at_;
};

namespace detail {
inline std::uint64_t changes = 1; ///< of the module's namespace and of the builtins, as many as were seen
object look_up(name wanted, location at);
} // namespace detail

/// A name of the module: its namespace, then the builtins, then NameError.
[[nodiscard]] inline callee global(name wanted, location at = location::current()) {
    if (wanted.node->change == detail::changes) [[likely]]
        return {object::borrow(wanted.node->value), at};
    return {detail::look_up(wanted, at), at};
}
/// `global name; name = value`
void set_global(name changed, handle value, location at = location::current());

[[nodiscard]] handle module_namespace() noexcept; ///< empty before the first initialisation
/// Interns the names of the program for the interpreter that is running.
void intern_names();
/// From now on names are looked up here, and builtins where the interpreter has them now.
void enter_namespace(handle module_namespace);
/// The interpreter is gone, and its objects with it.
void forget_namespace() noexcept;

} // namespace corvane::py
