// Evaluates expressions over the series of one era, and measures what comes out. The build sets BACKTESTER_VERSION, so
// that one source makes several builds, and ERA_KEY, the 16 bytes of the era's platform key.
#include "expression.hpp"
#include "python.hpp"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <optional>

namespace {

using namespace backtester; // NOLINT(google-build-using-namespace): this file is its Python side
using python::object;
using python::owned;

// -- Measures -------------------------------------------------------------------------------------------------------

void demand(bool met, const char* complaint) {
    if (!met)
        throw std::invalid_argument(complaint);
}

/// The pairs of two series in which both are finite.
std::pair<series, series> finite_pairs(window left, window right) {
    demand(left.size() == right.size(), "the series differ in length");
    std::pair<series, series> kept;
    for (std::size_t i = 0; i < left.size(); ++i) {
        if (std::isfinite(left[i]) && std::isfinite(right[i])) {
            kept.first.push_back(left[i]);
            kept.second.push_back(right[i]);
        }
    }
    return kept;
}

constexpr std::size_t lanes = 4;
using lane_sums = std::array<double, lanes>;

/// Pearson's of one series with each of four others, each pair over the days on which both are finite. Four at once
/// take little longer than one, whose sums would wait for one another.
lane_sums correlations(window a, const std::array<window, lanes>& others) {
    const auto paired = [&](std::size_t i, std::size_t lane) {
        return std::isfinite(a[i]) && std::isfinite(others[lane][i]);
    };
    lane_sums base_a{};
    lane_sums base_b{};
    for (std::size_t lane = 0; lane < lanes; ++lane) {
        demand(a.size() == others[lane].size(), "the series differ in length");
        for (std::size_t i = 0; i < a.size(); ++i) {
            if (paired(i, lane)) {
                base_a[lane] = a[i];
                base_b[lane] = others[lane][i];
                break;
            }
        }
    }
    lane_sums days{};
    lane_sums mean_a{};
    lane_sums mean_b{};
    for (std::size_t i = 0; i < a.size(); ++i) {
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            const bool kept = paired(i, lane);
            days[lane] += kept ? 1 : 0;
            mean_a[lane] += kept ? a[i] - base_a[lane] : 0;
            mean_b[lane] += kept ? others[lane][i] - base_b[lane] : 0;
        }
    }
    for (std::size_t lane = 0; lane < lanes; ++lane) {
        mean_a[lane] = base_a[lane] + mean_a[lane] / days[lane];
        mean_b[lane] = base_b[lane] + mean_b[lane] / days[lane];
    }
    lane_sums both{};
    lane_sums squares_a{};
    lane_sums squares_b{};
    for (std::size_t i = 0; i < a.size(); ++i) {
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            const bool kept = paired(i, lane);
            const double off_a = kept ? a[i] - mean_a[lane] : 0;
            const double off_b = kept ? others[lane][i] - mean_b[lane] : 0;
            both[lane] += off_a * off_b;
            squares_a[lane] += off_a * off_a;
            squares_b[lane] += off_b * off_b;
        }
    }
    for (std::size_t lane = 0; lane < lanes; ++lane) {
        const double spread = std::sqrt(squares_a[lane] / days[lane]) * std::sqrt(squares_b[lane] / days[lane]);
        // Clamped, for rounding must not lead beyond 1.
        both[lane] = spread > 0 ? std::clamp(both[lane] / days[lane] / spread, -1.0, 1.0) : undefined;
    }
    return both;
}

/// The bin of each value, so that all bins hold about equally many. Equal values share one: told apart by their days,
/// two series that hardly vary would seem to know much of each other.
std::vector<std::size_t> bins_of(const series& values, std::size_t bins) {
    std::vector<std::size_t> order(values.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::sort(order, {}, [&](std::size_t i) { return values[i]; });
    std::vector<std::size_t> bin(values.size());
    for (std::size_t place = 0, first_equal = 0; place < order.size(); ++place) {
        if (values[order[place]] != values[order[first_equal]])
            first_equal = place;
        bin[order[place]] = first_equal * bins / order.size();
    }
    return bin;
}

double mutual_information(window left, window right, std::size_t bins) {
    const auto [a, b] = finite_pairs(left, right);
    if (a.empty())
        return undefined;
    const auto bin_a = bins_of(a, bins);
    const auto bin_b = bins_of(b, bins);
    std::vector<double> both(bins * bins);
    std::vector<double> only_a(bins);
    std::vector<double> only_b(bins);
    for (std::size_t i = 0; i < a.size(); ++i) {
        both[bin_a[i] * bins + bin_b[i]] += 1;
        only_a[bin_a[i]] += 1;
        only_b[bin_b[i]] += 1;
    }
    const auto days = static_cast<double>(a.size());
    double bits = 0;
    for (std::size_t i = 0; i < both.size(); ++i) {
        if (both[i] > 0)
            bits += both[i] / days * std::log2(both[i] * days / (only_a[i / bins] * only_b[i % bins]));
    }
    return std::max(bits, 0.0); // rounding may lead below
}

double sharpe(window returns, double periods_per_year) {
    const series kept = finite_pairs(returns, returns).first;
    const double spread = deviation(kept);
    return spread > 0 ? mean(kept) / spread * std::sqrt(periods_per_year) : undefined;
}

/// What holding the sign that the signal had the day before earns, less what changing the position costs.
series profit(window signal, window prices, double direction, double cost) {
    demand(signal.size() == prices.size(), "the series differ in length");
    series earned(signal.size());
    double held = 0;
    for (std::size_t day = 1; day < signal.size(); ++day) {
        const double side = static_cast<double>(signal[day - 1] > 0) - static_cast<double>(signal[day - 1] < 0);
        const double position = direction * side;
        earned[day] = position * (prices[day] / prices[day - 1] - 1) - cost * std::fabs(position - held);
        held = position;
    }
    return earned;
}

/// A signal worth a closer look, and its correlation with each target.
struct candidate {
    series values;
    series correlations;
};

struct limits {
    double correlation; ///< in either direction, with any target
    double on_a_side;   ///< share of the days on which the signal is positive, and negative
};

std::optional<candidate> screened(series values, const std::vector<window>& targets, const limits& least) {
    const auto days = static_cast<double>(values.size());
    const auto above = std::ranges::count_if(values, [](double x) { return x > 0; });
    const auto below = std::ranges::count_if(values, [](double x) { return x < 0; });
    if (!(static_cast<double>(std::min(above, below)) >= least.on_a_side * days))
        return std::nullopt; // most signals end here, after the cheapest test
    series found;
    for (std::size_t first = 0; first < targets.size(); first += lanes) {
        std::array<window, lanes> some;
        for (std::size_t lane = 0; lane < lanes; ++lane)
            some[lane] = targets[std::min(first + lane, targets.size() - 1)];
        const auto group = correlations(values, some);
        found.insert(found.end(), group.begin(),
                     group.begin() + std::min<std::ptrdiff_t>(
                                         std::ssize(group), std::ssize(targets) - static_cast<std::ptrdiff_t>(first)));
    }
    if (std::ranges::none_of(found, [&](double r) { return std::fabs(r) >= least.correlation; }))
        return std::nullopt;
    return candidate{std::move(values), std::move(found)};
}

// -- Python ---------------------------------------------------------------------------------------------------------

/// A series in the memory of a Python object, which the memoryview keeps.
struct lent_series {
    object view;
    window values;
};

lent_series lend(PyObject* owner) {
    object view = owned(PyMemoryView_FromObject(owner));
    const Py_buffer& buffer = *PyMemoryView_GET_BUFFER(view.get());
    const bool aligned = buffer.len == 0 || std::bit_cast<std::uintptr_t>(buffer.buf) % alignof(double) == 0;
    if (buffer.ndim == 1 && std::strcmp(buffer.format, "d") == 0 && PyBuffer_IsContiguous(&buffer, 'C') != 0 && aligned)
        return {std::move(view), {static_cast<const double*>(buffer.buf), static_cast<std::size_t>(buffer.shape[0])}};
    PyErr_SetString(PyExc_TypeError, "a series is a contiguous, aligned, one-dimensional buffer of float");
    throw python::error();
}

void parse(PyObject* arguments, const char* format, auto*... targets) {
    python::require(PyArg_ParseTuple(arguments, format, targets...) != 0);
}

/// The series of a dictionary, which must stay alive.
struct lent_inputs {
    explicit lent_inputs(PyObject* given) {
        const object items = owned(PyDict_Items(given));
        demand(PyList_GET_SIZE(items.get()) > 0, "there must be at least one input");
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
            const char* name = nullptr;
            PyObject* values = nullptr;
            parse(PyList_GET_ITEM(items.get(), i), "sO:inputs", &name, &values);
            lent.push_back(lend(values));
            demand(lent.back().values.size() == days(), "the series differ in length");
            named.emplace(name, lent.back().values);
        }
    }
    [[nodiscard]] std::size_t days() const { return lent.front().values.size(); }

    std::vector<lent_series> lent;
    inputs named;
};

object given_away(const series& values) {
    const auto size = static_cast<Py_ssize_t>(values.size() * sizeof(double));
    return python::cast(owned(PyByteArray_FromStringAndSize(reinterpret_cast<const char*>(values.data()), size)), "d");
}

object evaluate_expression(PyObject* arguments) {
    const char* text = nullptr;
    PyObject* given = nullptr;
    parse(arguments, "sO!:evaluate", &text, &PyDict_Type, &given);
    const lent_inputs series_of(given);
    return given_away(reader(text, series_of.named, series_of.days()).evaluate());
}

object screen(PyObject* arguments) {
    PyObject* texts = nullptr;
    PyObject* given = nullptr;
    PyObject* others = nullptr;
    limits least{};
    parse(arguments, "O!O!O!dd:screen", &PyTuple_Type, &texts, &PyDict_Type, &given, &PyTuple_Type, &others,
          &least.correlation, &least.on_a_side);
    const lent_inputs series_of(given);
    std::vector<lent_series> lent;
    std::vector<window> targets;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(others); ++i) {
        lent.push_back(lend(PyTuple_GET_ITEM(others, i)));
        targets.push_back(lent.back().values);
    }
    std::vector<const char*> expressions;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(texts); ++i) {
        const char* text = PyUnicode_AsUTF8(PyTuple_GET_ITEM(texts, i));
        python::require(text != nullptr);
        expressions.push_back(text);
    }
    std::vector<std::optional<candidate>> results;
    python::without_lock([&] { // all that is read here is held by the arguments, and nobody writes it
        for (const char* text : expressions)
            results.push_back(screened(reader(text, series_of.named, series_of.days()).evaluate(), targets, least));
    });
    object listed = owned(PyList_New(std::ssize(results)));
    for (std::size_t i = 0; i < results.size(); ++i) {
        object item(Py_NewRef(Py_None));
        if (const auto& found = results[i]) {
            const object values = given_away(found->values);
            const object correlations = given_away(found->correlations);
            item = owned(PyTuple_Pack(2, values.get(), correlations.get()));
        }
        PyList_SET_ITEM(listed.get(), static_cast<Py_ssize_t>(i), item.release());
    }
    return listed;
}

object profit_of(PyObject* arguments) {
    PyObject* signal = nullptr;
    PyObject* prices = nullptr;
    double direction = 0;
    double cost = 0;
    parse(arguments, "OOdd:profit", &signal, &prices, &direction, &cost);
    return given_away(profit(lend(signal).values, lend(prices).values, direction, cost));
}

object correlation_of(PyObject* arguments) {
    PyObject* a = nullptr;
    PyObject* b = nullptr;
    parse(arguments, "OO:correlation", &a, &b);
    const lent_series other = lend(b);
    return owned(PyFloat_FromDouble(
        correlations(lend(a).values, {other.values, other.values, other.values, other.values}).front()));
}

object mutual_information_of(PyObject* arguments) {
    PyObject* a = nullptr;
    PyObject* b = nullptr;
    int bins = 16;
    parse(arguments, "OO|i:mutual_information", &a, &b, &bins);
    demand(bins >= 1 && bins <= 1000, "bins must be from 1 to 1000");
    const auto count = static_cast<std::size_t>(bins);
    return owned(PyFloat_FromDouble(mutual_information(lend(a).values, lend(b).values, count)));
}

object sharpe_of(PyObject* arguments) {
    PyObject* returns = nullptr;
    double periods = 252;
    parse(arguments, "O|d:sharpe", &returns, &periods);
    demand(periods > 0 && std::isfinite(periods), "periods_per_year must be a positive number");
    return owned(PyFloat_FromDouble(sharpe(lend(returns).values, periods)));
}

/// The seal is the HMAC with SHA-256 of all bytes of the series in turn.
object init_reconstruction(PyObject* arguments) {
    constexpr unsigned char key[] = {ERA_KEY};
    PyObject* seal = nullptr;
    PyObject* parts = nullptr;
    parse(arguments, "SO:init_reconstruction", &seal, &parts);
    const object nothing = owned(PyBytes_FromString(""));
    const object data = owned(PyObject_CallMethod(nothing.get(), "join", "(O)", parts));
    const object hmac = owned(PyImport_ImportModule("hmac"));
    const object expected = owned(PyObject_CallMethod(hmac.get(), "digest", "y#Os", reinterpret_cast<const char*>(key),
                                                      std::ssize(key), data.get(), "sha256"));
    const int same = PyObject_RichCompareBool(seal, expected.get(), Py_EQ);
    python::require(same >= 0);
    demand(same == 1, "the series are not those of this era: the seal does not fit");
    return object(Py_NewRef(Py_None));
}

template <object (*Body)(PyObject*)> PyObject* guarded(PyObject*, PyObject* arguments) {
    return python::guarded<PyObject*>(nullptr, [=] { return Body(arguments).release(); });
}

int execute(PyObject* module) {
    return python::guarded(-1, [=] {
        const object arities = owned(PyDict_New());
        for (const function& f : functions) {
            const object arity = owned(Py_BuildValue("(ii)", 1, f.takes_window ? 1 : 0));
            python::require(PyDict_SetItemString(arities.get(), f.name, arity.get()) == 0);
        }
        python::add(module, "FUNCTIONS", arities);
        python::add(module, "ERA_ID", owned(PyLong_FromLong(3)));
        python::add(module, "VERSION", owned(PyUnicode_FromString(BACKTESTER_VERSION)));
        return 0;
    });
}

PyMethodDef methods[] = {
    {"evaluate", guarded<evaluate_expression>, METH_VARARGS,
     "evaluate(expression, inputs, /)\n--\n\nThe value of each day; NaN where a window is not full yet.\n\n"
     "Raises ValueError with the column for what is not an expression, or for series of different lengths."},
    {"screen", guarded<screen>, METH_VARARGS,
     "screen(expressions, inputs, targets, least_correlation, least_on_a_side, /)\n--\n\n"
     "For each expression (values, correlations with the targets), or None if it is not worth a closer look.\n\n"
     "Other threads run meanwhile. Raises what evaluate raises."},
    {"profit", guarded<profit_of>, METH_VARARGS,
     "profit(signal, prices, direction, cost, /)\n--\n\nWhat the signal earns each day, as a share of the capital."},
    {"correlation", guarded<correlation_of>, METH_VARARGS,
     "correlation(a, b, /)\n--\n\nPearson's, over the days on which both are finite; NaN if one does not vary."},
    {"mutual_information", guarded<mutual_information_of>, METH_VARARGS,
     "mutual_information(a, b, bins=16, /)\n--\n\nIn bits, over bins that hold equally many days."},
    {"sharpe", guarded<sharpe_of>, METH_VARARGS,
     "sharpe(returns, periods_per_year=252.0, /)\n--\n\nThe annual ratio of mean to deviation."},
    {"init_reconstruction", guarded<init_reconstruction>, METH_VARARGS,
     "init_reconstruction(seal, series, /)\n--\n\nRaises ValueError if the series are not the era's, by its key."},
    {}};
PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(execute)}, {}};
PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "backtester", "Expressions over series.", 0, methods, slots, nullptr, nullptr, nullptr};

} // namespace

PyMODINIT_FUNC PyInit_backtester() { return PyModuleDef_Init(&definition); }
