// Evaluates expressions over the series of one era, and measures what comes out. The build sets BACKTESTER_VERSION, so
// that one source makes several builds, and ERA_KEY, the 16 bytes of the era's platform key.
#include "expression.hpp"
#include "python.hpp"

#include <bit>
#include <cstdint>
#include <cstring>
#include <numeric>

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

double correlation(window left, window right) {
    const auto [a, b] = finite_pairs(left, right);
    const double mean_a = mean(a);
    const double mean_b = mean(b);
    const double spread = deviation(a) * deviation(b);
    double sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        sum += (a[i] - mean_a) * (b[i] - mean_b);
    // Clamped, for rounding must not lead beyond 1.
    return spread > 0 ? std::clamp(sum / static_cast<double>(a.size()) / spread, -1.0, 1.0) : undefined;
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

object evaluate_expression(PyObject* arguments) {
    const char* text = nullptr;
    PyObject* given = nullptr;
    parse(arguments, "sO!:evaluate", &text, &PyDict_Type, &given);
    const object items = owned(PyDict_Items(given));
    demand(PyList_GET_SIZE(items.get()) > 0, "there must be at least one input");
    std::vector<lent_series> lent;
    inputs named;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
        const char* name = nullptr;
        PyObject* values = nullptr;
        parse(PyList_GET_ITEM(items.get(), i), "sO:inputs", &name, &values);
        lent.push_back(lend(values));
        demand(lent.back().values.size() == lent.front().values.size(), "the series differ in length");
        named.emplace(name, lent.back().values);
    }
    const series result = reader(text, named, lent.front().values.size()).evaluate();
    const auto size = static_cast<Py_ssize_t>(result.size() * sizeof(double));
    return python::cast(owned(PyByteArray_FromStringAndSize(reinterpret_cast<const char*>(result.data()), size)), "d");
}

object correlation_of(PyObject* arguments) {
    PyObject* a = nullptr;
    PyObject* b = nullptr;
    parse(arguments, "OO:correlation", &a, &b);
    return owned(PyFloat_FromDouble(correlation(lend(a).values, lend(b).values)));
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
     "Raises ValueError with the column for what is no expression, or for series of different lengths."},
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
