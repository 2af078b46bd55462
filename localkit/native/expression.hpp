// A small language over daily series: numbers, names, + - * /, parentheses, functions of one series and a window.
#pragma once

#include <cstddef>
#include <limits>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace backtester {

using series = std::vector<double>;
using window = std::span<const double>;
constexpr double undefined = std::numeric_limits<double>::quiet_NaN();
using inputs = std::map<std::string, std::span<const double>, std::less<>>;

/// The text is no expression of the language; the message begins with the column, counted from 1.
class bad_expression : public std::invalid_argument {
  public:
    bad_expression(std::size_t column, const std::string& what)
        : std::invalid_argument("column " + std::to_string(column) + ": " + what) {}
};

/// One function: of each value alone, or of a window of values that ends with the day's own.
struct function {
    std::string_view name;
    double (*of_value)(double);
    double (*of_window)(window);
    std::size_t days_before; ///< that the window holds beside its number of days
};
std::span<const function> functions() noexcept;

double mean(window values);
double deviation(window values);

/// The value of each day; NaN where a window is not full yet. All inputs have that many days.
series evaluate(std::string_view text, const inputs& given, std::size_t days);

} // namespace backtester
