#include "expression.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>

namespace backtester {

double mean(window w) {
    if (w.empty())
        return undefined;
    // Summed relative to one of the values: the mean of equal values is exactly that value, and their deviation 0.
    const double base = std::isfinite(w.front()) ? w.front() : 0;
    double sum = 0;
    for (double x : w)
        sum += x - base;
    return base + sum / static_cast<double>(w.size());
}
double deviation(window w) {
    const double middle = mean(w);
    double sum = 0;
    for (double x : w)
        sum += (x - middle) * (x - middle);
    return std::sqrt(sum / static_cast<double>(w.size()));
}

namespace {

constexpr std::size_t longest_text = 10'000;
constexpr int deepest_nesting = 100;
constexpr int longest_window = 1'000;

double rank(window w) {
    double below = 0;
    for (double x : w) {
        if (std::isnan(x))
            return undefined;
        below += x < w.back() ? 1.0 : x == w.back() ? 0.5 : 0.0;
    }
    return w.size() == 1 ? 0.5 : (below - 0.5) / static_cast<double>(w.size() - 1);
}
double smallest(window w) {
    return std::ranges::any_of(w, [](double x) { return std::isnan(x); }) ? undefined : *std::ranges::min_element(w);
}
double largest(window w) {
    return std::ranges::any_of(w, [](double x) { return std::isnan(x); }) ? undefined : *std::ranges::max_element(w);
}

constexpr function table[] = {
    {"abs", [](double x) { return std::fabs(x); }, nullptr, 0},
    {"log", [](double x) { return std::log(x); }, nullptr, 0},
    {"sign", [](double x) { return std::isnan(x) ? x : static_cast<double>((x > 0) - (x < 0)); }, nullptr, 0},
    {"delay", nullptr, [](window w) { return w.front(); }, 1},
    {"delta", nullptr, [](window w) { return w.back() - w.front(); }, 1},
    {"mean", nullptr, mean, 0},
    {"std", nullptr, deviation, 0},
    {"zscore", nullptr, [](window w) { return (w.back() - mean(w)) / deviation(w); }, 0},
    {"rank", nullptr, rank, 0},
    {"min", nullptr, smallest, 0},
    {"max", nullptr, largest, 0},
};

series of_windows(const series& values, const function& called, std::size_t days) {
    const std::size_t length = days + called.days_before;
    series result(values.size(), undefined);
    for (std::size_t last = length - 1; last < values.size(); ++last)
        result[last] = called.of_window(window(values).subspan(last + 1 - length, length));
    return result;
}

bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }
bool begins_name(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }

/// Recursive descent; each rule answers the values of what it has read.
class reader {
  public:
    reader(std::string_view text, const inputs& given, std::size_t days) : text_(text), given_(given), days_(days) {}

    series whole() {
        series result = sum();
        if (next() != '\0')
            expected("an operator or the end");
        return result;
    }

  private:
    series sum() {
        series left = product();
        while (next() == '+' || next() == '-') {
            const bool adds = take() == '+';
            const series right = product();
            for (std::size_t i = 0; i < days_; ++i)
                left[i] = adds ? left[i] + right[i] : left[i] - right[i];
        }
        return left;
    }
    series product() {
        series left = factor();
        while (next() == '*' || next() == '/') {
            const bool multiplies = take() == '*';
            const series right = factor();
            for (std::size_t i = 0; i < days_; ++i)
                left[i] = multiplies ? left[i] * right[i] : left[i] / right[i];
        }
        return left;
    }
    series factor() {
        if (++depth_ > deepest_nesting)
            throw bad_expression(place_ + 1, "nested deeper than " + std::to_string(deepest_nesting) + " levels");
        series result = operand();
        --depth_;
        return result;
    }
    series operand() {
        const char first = next();
        if (first == '-') {
            take();
            series result = factor();
            for (double& x : result)
                x = -x;
            return result;
        }
        if (first == '(') {
            take();
            series result = sum();
            require(')');
            return result;
        }
        if (is_digit(first) || first == '.')
            return constant(number());
        if (!begins_name(first))
            expected("a number, a name or (");
        return name_or_call();
    }
    // A name for it: in braces, the number of days would be a value.
    [[nodiscard]] series constant(double value) const {
        series result(days_, value);
        return result;
    }
    double number() {
        double value = 0;
        const char* end = text_.data() + text_.size();
        const auto [stop, failure] = std::from_chars(text_.data() + place_, end, value);
        if (failure != std::errc())
            expected("a number that a float can hold");
        place_ = static_cast<std::size_t>(stop - text_.data());
        return value;
    }
    series name_or_call() {
        const std::size_t start = place_;
        while (place_ < text_.size() && (begins_name(text_[place_]) || is_digit(text_[place_])))
            ++place_;
        const std::string_view name = text_.substr(start, place_ - start);
        if (next() == '(')
            return call(name, start);
        const auto found = given_.find(name);
        if (found == given_.end())
            throw bad_expression(start + 1, "there is no input " + std::string(name));
        return {found->second.begin(), found->second.end()};
    }
    series call(std::string_view name, std::size_t start) {
        const auto* const called = std::ranges::find(table, name, &function::name);
        if (called == std::end(table))
            throw bad_expression(start + 1, "there is no function " + std::string(name));
        take();
        series argument = sum();
        if (called->of_value != nullptr) {
            std::ranges::transform(argument, argument.begin(), called->of_value);
        } else {
            require(',');
            argument = of_windows(argument, *called, window_length());
        }
        require(')');
        return argument;
    }
    std::size_t window_length() {
        int length = 0;
        const std::size_t start = (next(), place_);
        while (place_ < text_.size() && is_digit(text_[place_]) && length <= longest_window)
            length = length * 10 + (text_[place_++] - '0');
        if (length < 1 || length > longest_window)
            throw bad_expression(start + 1, "expected a number of days from 1 to " + std::to_string(longest_window));
        return static_cast<std::size_t>(length);
    }

    /// The next character that is no blank; NUL at the end.
    char next() noexcept {
        while (place_ < text_.size() && (text_[place_] == ' ' || text_[place_] == '\t' || text_[place_] == '\n'))
            ++place_;
        return place_ < text_.size() ? text_[place_] : '\0';
    }
    char take() noexcept { return text_[place_++]; }
    void require(char wanted) {
        if (next() != wanted)
            expected(std::string(1, wanted));
        take();
    }
    [[noreturn]] void expected(const std::string& what) { throw bad_expression(place_ + 1, "expected " + what); }

    std::string_view text_;
    const inputs& given_;
    std::size_t days_;
    std::size_t place_ = 0;
    int depth_ = 0;
};

} // namespace

std::span<const function> functions() noexcept { return table; }

series evaluate(std::string_view text, const inputs& given, std::size_t days) {
    if (text.size() > longest_text)
        throw bad_expression(longest_text + 1, "longer than " + std::to_string(longest_text) + " characters");
    if (text.find('\0') != std::string_view::npos)
        throw bad_expression(text.find('\0') + 1, "expected no NUL");
    return reader(text, given, days).whole();
}

} // namespace backtester
