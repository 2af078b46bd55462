// A small language over daily series: numbers, names, + - * /, parentheses, functions of one series and a window.
#pragma once

#include <algorithm>
#include <charconv>
#include <cmath>
#include <functional>
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
using inputs = std::map<std::string, window, std::less<>>;
constexpr double undefined = std::numeric_limits<double>::quiet_NaN();

inline double mean(window w) {
    if (w.empty())
        return undefined;
    // Summed relative to one of the values: the mean of equal values is exactly that value, and their deviation 0.
    const double base = std::isfinite(w.front()) ? w.front() : 0;
    double sum = 0;
    for (double x : w)
        sum += x - base;
    return base + sum / static_cast<double>(w.size());
}

inline double deviation(window w) {
    const double middle = mean(w);
    double sum = 0;
    for (double x : w)
        sum += (x - middle) * (x - middle);
    return std::sqrt(sum / static_cast<double>(w.size()));
}

// -- Functions of all windows of a column at once ---------------------------------------------------------------------
// `out[i]` is the value of the `length` days from day i on. The days are in the inner loops: what is computed of one
// day does not wait for another, so that the processor works on several. Each sum still has the order of `mean`.

inline void means(window x, std::size_t length, std::span<double> out) {
    series base(x.begin(), x.begin() + std::ssize(out));
    std::ranges::replace_if(base, [](double value) { return !std::isfinite(value); }, 0.0);
    std::ranges::fill(out, 0.0);
    for (std::size_t k = 0; k < length; ++k)
        for (std::size_t i = 0; i < out.size(); ++i)
            out[i] += x[i + k] - base[i];
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = base[i] + out[i] / static_cast<double>(length);
}

inline void deviations(window x, std::size_t length, std::span<double> out) {
    series middle(out.size());
    means(x, length, middle);
    std::ranges::fill(out, 0.0);
    for (std::size_t k = 0; k < length; ++k)
        for (std::size_t i = 0; i < out.size(); ++i)
            out[i] += (x[i + k] - middle[i]) * (x[i + k] - middle[i]);
    for (double& sum : out)
        sum = std::sqrt(sum / static_cast<double>(length));
}

inline void zscores(window x, std::size_t length, std::span<double> out) {
    series middle(out.size());
    means(x, length, middle);
    deviations(x, length, out);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = (x[i + length - 1] - middle[i]) / out[i];
}

/// For functions that compare values, which no comparison with NaN would spoil.
inline void spoil_where_nan(window x, std::size_t length, std::span<double> out) {
    std::size_t after_nan = 0; // windows that begin before it hold a NaN
    for (std::size_t last = 0; last < x.size(); ++last) {
        if (std::isnan(x[last]))
            after_nan = last + 1;
        if (last + 1 >= length && last + 1 - length < after_nan)
            out[last + 1 - length] = undefined;
    }
}

inline void ranks(window x, std::size_t length, std::span<double> out) {
    std::ranges::fill(out, 0.0);
    for (std::size_t k = 0; k < length; ++k)
        for (std::size_t i = 0; i < out.size(); ++i)
            out[i] += (x[i + k] < x[i + length - 1] ? 0.5 : 0.0) + (x[i + k] <= x[i + length - 1] ? 0.5 : 0.0);
    for (double& below : out)
        below = length == 1 ? 0.5 : (below - 0.5) / static_cast<double>(length - 1);
    spoil_where_nan(x, length, out);
}

template <typename Before> void extremes(window x, std::size_t length, std::span<double> out) {
    std::ranges::copy(x.first(out.size()), out.begin());
    for (std::size_t k = 1; k < length; ++k)
        for (std::size_t i = 0; i < out.size(); ++i)
            out[i] = Before()(x[i + k], out[i]) ? x[i + k] : out[i];
    spoil_where_nan(x, length, out);
}

inline void earliest(window x, std::size_t, std::span<double> out) {
    std::ranges::copy(x.first(out.size()), out.begin());
}

inline void differences(window x, std::size_t, std::span<double> out) {
    std::ranges::transform(x.last(out.size()), x.first(out.size()), out.begin(), std::minus());
}

template <auto Of> void each(window x, std::size_t, std::span<double> out) {
    std::ranges::transform(x, out.begin(), Of);
}

/// A function of a window of days that ends with the day's own, or of that day alone.
struct function {
    const char* name;
    void (*of)(window, std::size_t length, std::span<double> out);
    bool takes_window;
    std::size_t days_before; ///< that the window holds beside the days asked for
};
constexpr function functions[] = {
    {"abs", each<[](double x) { return std::fabs(x); }>, false, 0},
    {"log", each<[](double x) { return std::log(x); }>, false, 0},
    {"sign", each<[](double x) { return std::isnan(x) ? x : static_cast<double>((x > 0) - (x < 0)); }>, false, 0},
    {"delay", earliest, true, 1},
    {"delta", differences, true, 1},
    {"mean", means, true, 0},
    {"std", deviations, true, 0},
    {"zscore", zscores, true, 0},
    {"rank", ranks, true, 0},
    {"min", extremes<std::less<>>, true, 0},
    {"max", extremes<std::greater<>>, true, 0},
};

/// Evaluates by recursive descent; each rule returns the values of what it has read.
class reader {
  public:
    /// All inputs have that many days.
    reader(std::string_view text, const inputs& given, std::size_t days) : text_(text), given_(given), days_(days) {}

    /// The value of each day, NaN where a window is not full yet; std::invalid_argument with the column, from 1.
    series evaluate() {
        if (text_.size() > longest_text)
            fail(longest_text, "longer than " + std::to_string(longest_text) + " characters");
        series result = sum();
        if (next() != '\0')
            fail(place_, "expected an operator or the end");
        return result;
    }

  private:
    static constexpr std::size_t longest_text = 2'000; // well under a second of work
    static constexpr int deepest_nesting = 100;

    series sum() {
        series left = product();
        while (next() == '+' || next() == '-')
            text_[place_++] == '+' ? combine(left, product(), std::plus()) : combine(left, product(), std::minus());
        return left;
    }
    series product() {
        series left = operand();
        while (next() == '*' || next() == '/')
            text_[place_++] == '*' ? combine(left, operand(), std::multiplies())
                                   : combine(left, operand(), std::divides());
        return left;
    }
    static void combine(series& left, const series& right, auto operation) {
        std::ranges::transform(left, right, left.begin(), operation);
    }
    series operand() {
        if (++depth_ > deepest_nesting)
            fail(place_, "nested deeper than " + std::to_string(deepest_nesting) + " levels");
        series result;
        if (accept('-')) {
            result = operand();
            std::ranges::transform(result, result.begin(), std::negate());
        } else if (accept('(')) {
            result = sum();
            require(')');
        } else if (is_digit(next()) || next() == '.') {
            result.assign(days_, number(0.0, std::numeric_limits<double>::max(), "a number that a float can hold"));
        } else {
            result = input_or_call();
        }
        --depth_;
        return result;
    }
    series input_or_call() {
        const std::size_t start = place_;
        while (begins_name(at_place()) || (place_ > start && is_digit(at_place())))
            ++place_;
        const std::string name(text_.substr(start, place_ - start));
        if (name.empty())
            fail(start, "expected a number, a name or (");
        if (accept('(')) {
            const auto* const called = std::ranges::find(functions, name, &function::name);
            if (called == std::end(functions))
                fail(start, "there is no function " + name);
            return call(*called);
        }
        const auto found = given_.find(name);
        if (found == given_.end())
            fail(start, "there is no input " + name);
        return {found->second.begin(), found->second.end()};
    }
    series call(const function& called) {
        const series argument = sum();
        std::size_t length = 1;
        if (called.takes_window) {
            require(',');
            length = called.days_before + number<std::size_t>(1, 1000, "a number of days from 1 to 1000");
        }
        require(')');
        series result(days_, undefined);
        if (length <= days_)
            called.of(argument, length, std::span(result).subspan(length - 1));
        return result;
    }
    template <typename Number> Number number(Number least, Number most, const std::string& what) {
        next();
        Number value = 0;
        const auto [stop, failure] = std::from_chars(text_.data() + place_, text_.data() + text_.size(), value);
        if (failure != std::errc() || value < least || value > most)
            fail(place_, "expected " + what);
        place_ = static_cast<std::size_t>(stop - text_.data());
        return value;
    }

    static bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }
    static bool begins_name(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
    [[nodiscard]] char at_place() const noexcept { return place_ < text_.size() ? text_[place_] : '\0'; }
    /// The next character that is not a blank; NUL at the end.
    char next() noexcept {
        place_ = std::min(text_.find_first_not_of(" \t\n", place_), text_.size());
        return at_place();
    }
    bool accept(char wanted) noexcept {
        const bool found = next() == wanted;
        place_ += found ? 1 : 0;
        return found;
    }
    void require(char wanted) {
        if (!accept(wanted))
            fail(place_, std::string("expected ") + wanted);
    }
    [[noreturn]] static void fail(std::size_t place, const std::string& what) {
        throw std::invalid_argument("column " + std::to_string(place + 1) + ": " + what);
    }

    std::string_view text_;
    const inputs& given_;
    std::size_t days_;
    std::size_t place_ = 0;
    int depth_ = 0;
};

} // namespace backtester
