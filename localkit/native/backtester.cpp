// Evaluates expressions over the series of one era, and measures what comes out. The build sets BACKTESTER_VERSION, so
// that one source makes several builds, and ERA_KEY, the era's platform key.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "expression.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numeric>

namespace {

using namespace backtester; // NOLINT(google-build-using-namespace): this file is its Python side

// -- Measures -------------------------------------------------------------------------------------------------------

/// The pairs of two series in which both are finite.
std::pair<series, series> finite_pairs(window left, window right) {
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
    double ab = 0;
    double aa = 0;
    double bb = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        ab += (a[i] - mean_a) * (b[i] - mean_b);
        aa += (a[i] - mean_a) * (a[i] - mean_a);
        bb += (b[i] - mean_b) * (b[i] - mean_b);
    }
    return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : undefined;
}

/// The bin of each value, so that all bins hold equally many; of equal values the earlier one is the smaller.
std::vector<std::size_t> bins_of(const series& values, std::size_t bins) {
    std::vector<std::size_t> order(values.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t i, std::size_t j) { return values[i] < values[j]; });
    std::vector<std::size_t> bin(values.size());
    for (std::size_t place = 0; place < order.size(); ++place)
        bin[order[place]] = place * bins / order.size();
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
    const double share = 1 / static_cast<double>(a.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        both[bin_a[i] * bins + bin_b[i]] += share;
        only_a[bin_a[i]] += share;
        only_b[bin_b[i]] += share;
    }
    double bits = 0;
    for (std::size_t i = 0; i < both.size(); ++i) {
        if (both[i] > 0)
            bits += both[i] * std::log2(both[i] / (only_a[i / bins] * only_b[i % bins]));
    }
    return bits;
}

double sharpe(window returns, double periods_per_year) {
    const series kept = finite_pairs(returns, returns).first;
    const double spread = deviation(kept);
    return spread > 0 ? mean(kept) / spread * std::sqrt(periods_per_year) : undefined;
}

// -- Python ---------------------------------------------------------------------------------------------------------

struct give_back {
    void operator()(PyObject* owned) const noexcept { Py_DECREF(owned); }
};
using object = std::unique_ptr<PyObject, give_back>;

/// The Python error is set already.
struct python_error {};

template <typename Pointer> Pointer* checked(Pointer* result) {
    if (result == nullptr)
        throw python_error();
    return result;
}

/// A series lent by Python.
class lent_series {
  public:
    explicit lent_series(PyObject* owner) {
        if (PyObject_GetBuffer(owner, &view_, PyBUF_ND | PyBUF_FORMAT) < 0)
            throw python_error();
        if (view_.ndim == 1 && std::strcmp(view_.format, "d") == 0)
            return;
        PyBuffer_Release(&view_);
        PyErr_SetString(PyExc_TypeError, "a series is a one-dimensional buffer of float (format \"d\")");
        throw python_error();
    }
    ~lent_series() { PyBuffer_Release(&view_); }
    lent_series(const lent_series&) = delete;
    lent_series& operator=(const lent_series&) = delete;
    [[nodiscard]] window values() const noexcept {
        return {static_cast<const double*>(view_.buf), static_cast<std::size_t>(view_.len) / sizeof(double)};
    }

  private:
    Py_buffer view_{};
};
using lent = std::unique_ptr<lent_series>;

[[noreturn]] void raise(PyObject* type, const char* text) {
    PyErr_SetString(type, text);
    throw python_error();
}

/// Runs the body of a function; C++ exceptions become Python's.
template <typename Body> PyObject* answer(Body body) {
    try {
        return body();
    } catch (const python_error&) {
    } catch (const bad_expression& bad) {
        PyErr_SetString(PyExc_ValueError, bad.what());
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    return nullptr;
}

/// Computes while other threads run.
template <typename Body> auto without_lock(Body body) {
    struct released {
        PyThreadState* state = PyEval_SaveThread();
        ~released() { PyEval_RestoreThread(state); }
    } guard;
    return body();
}

void parse(PyObject* arguments, PyObject* keywords, const char* format, const char** names, auto*... targets) {
    if (PyArg_ParseTupleAndKeywords(arguments, keywords, format, const_cast<char**>(names), targets...) == 0)
        throw python_error();
}

/// A measure of two series of the same length.
template <typename Measure> PyObject* of_pair(PyObject* left, PyObject* right, Measure measure) {
    const lent_series a(left);
    const lent_series b(right);
    if (a.values().size() != b.values().size())
        raise(PyExc_ValueError, "the series differ in length");
    return PyFloat_FromDouble(without_lock([&] { return measure(a.values(), b.values()); }));
}

PyObject* evaluate(PyObject*, PyObject* arguments, PyObject* keywords) {
    return answer([=] {
        const char* names[] = {"expression", "inputs", nullptr};
        const char* text = nullptr;
        Py_ssize_t size = 0;
        PyObject* mapping = nullptr;
        parse(arguments, keywords, "s#O:evaluate", names, &text, &size, &mapping);
        const object items(checked(PyMapping_Items(mapping)));
        std::vector<lent> kept;
        inputs given;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
            PyObject* item = PyList_GET_ITEM(items.get(), i);
            if (!PyTuple_Check(item) || PyTuple_GET_SIZE(item) != 2)
                raise(PyExc_TypeError, "inputs must be a mapping from names to series");
            const char* name = checked(PyUnicode_AsUTF8(PyTuple_GET_ITEM(item, 0)));
            kept.push_back(std::make_unique<lent_series>(PyTuple_GET_ITEM(item, 1)));
            if (kept.back()->values().size() != kept.front()->values().size())
                raise(PyExc_ValueError, "the series differ in length");
            given.emplace(name, kept.back()->values());
        }
        if (kept.empty())
            raise(PyExc_ValueError, "there must be at least one input");
        const series result = without_lock([&] {
            return backtester::evaluate({text, static_cast<std::size_t>(size)}, given, kept.front()->values().size());
        });
        const auto bytes = static_cast<Py_ssize_t>(result.size() * sizeof(double));
        const object copy(checked(PyByteArray_FromStringAndSize(reinterpret_cast<const char*>(result.data()), bytes)));
        const object view(checked(PyMemoryView_FromObject(copy.get())));
        return PyObject_CallMethod(view.get(), "cast", "s", "d");
    });
}

PyObject* correlation_of(PyObject*, PyObject* arguments, PyObject* keywords) {
    return answer([=] {
        const char* names[] = {"a", "b", nullptr};
        PyObject* a = nullptr;
        PyObject* b = nullptr;
        parse(arguments, keywords, "OO:correlation", names, &a, &b);
        return of_pair(a, b, correlation);
    });
}

PyObject* mutual_information_of(PyObject*, PyObject* arguments, PyObject* keywords) {
    return answer([=] {
        const char* names[] = {"a", "b", "bins", nullptr};
        PyObject* a = nullptr;
        PyObject* b = nullptr;
        int bins = 16;
        parse(arguments, keywords, "OO|i:mutual_information", names, &a, &b, &bins);
        if (bins < 1 || bins > 1000)
            raise(PyExc_ValueError, "bins must be from 1 to 1000");
        const auto count = static_cast<std::size_t>(bins);
        return of_pair(a, b, [count](window x, window y) { return mutual_information(x, y, count); });
    });
}

PyObject* sharpe_of(PyObject*, PyObject* arguments, PyObject* keywords) {
    return answer([=] {
        const char* names[] = {"returns", "periods_per_year", nullptr};
        PyObject* returns = nullptr;
        double periods = 252;
        parse(arguments, keywords, "O|d:sharpe", names, &returns, &periods);
        return PyFloat_FromDouble(sharpe(lent_series(returns).values(), periods));
    });
}

/// FNV-1a over the key and the bytes of the series: tells data of another era, but is no protection against malice.
std::uint64_t seal_of(std::string_view key, const std::vector<lent>& parts) {
    std::uint64_t sum = 0xcbf29ce484222325u;
    const auto absorb = [&sum](const void* bytes, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i)
            sum = (sum ^ static_cast<const unsigned char*>(bytes)[i]) * 0x100000001b3u;
    };
    absorb(key.data(), key.size());
    for (const lent& part : parts)
        absorb(part->values().data(), part->values().size_bytes());
    return sum;
}

PyObject* init_reconstruction(PyObject*, PyObject* arguments, PyObject* keywords) {
    return answer([=] {
        const char* names[] = {"seal", "series", "secret", nullptr};
        const char* seal = nullptr;
        const char* secret = nullptr;
        Py_ssize_t seal_size = 0;
        PyObject* given = nullptr;
        parse(arguments, keywords, "y#O|z:init_reconstruction", names, &seal, &seal_size, &given, &secret);
        const object items(checked(PySequence_List(given)));
        std::vector<lent> parts;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i)
            parts.push_back(std::make_unique<lent_series>(PyList_GET_ITEM(items.get(), i)));
        const std::uint64_t sum = seal_of(secret == nullptr ? std::string_view(ERA_KEY) : secret, parts);
        if (seal_size != sizeof sum || std::memcmp(seal, &sum, sizeof sum) != 0)
            raise(PyExc_ValueError, "the series are not those of this era: the seal does not fit");
        return Py_NewRef(Py_None);
    });
}

PyObject* arities() {
    object made(checked(PyDict_New()));
    for (const function& f : functions()) {
        const object arity(checked(Py_BuildValue("(ii)", 1, f.of_window == nullptr ? 0 : 1)));
        if (PyDict_SetItemString(made.get(), std::string(f.name).c_str(), arity.get()) < 0)
            throw python_error();
    }
    return made.release();
}

int execute(PyObject* module) {
    const object functions(answer(arities));
    if (functions == nullptr || PyModule_AddObjectRef(module, "FUNCTIONS", functions.get()) < 0 ||
        PyModule_AddIntConstant(module, "ERA_ID", 3) < 0)
        return -1;
    return PyModule_AddStringConstant(module, "VERSION", BACKTESTER_VERSION);
}

template <PyCFunctionWithKeywords Function> constexpr PyMethodDef with_keywords(const char* name, const char* doc) {
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(Function)), METH_VARARGS | METH_KEYWORDS,
            doc};
}

PyMethodDef methods[] = {
    with_keywords<evaluate>(
        "evaluate", "evaluate(expression, inputs)\n--\n\nThe value of each day, a memoryview of float; NaN where a "
                    "window is not full yet.\n\nRaises ValueError with the column for what is no expression, or for "
                    "series of different lengths."),
    with_keywords<correlation_of>("correlation", "correlation(a, b)\n--\n\nPearson's, over the days on which both are "
                                                 "finite; NaN if one does not vary."),
    with_keywords<mutual_information_of>(
        "mutual_information", "mutual_information(a, b, bins=16)\n--\n\nIn bits, over bins that hold equally many of "
                              "the days on which both are finite."),
    with_keywords<sharpe_of>("sharpe", "sharpe(returns, periods_per_year=252.0)\n--\n\nThe annual ratio of mean to "
                                       "deviation; NaN if the returns do not vary."),
    with_keywords<init_reconstruction>(
        "init_reconstruction", "init_reconstruction(seal, series, secret=None)\n--\n\nChecks that the series are this "
                               "era's, with the key built in or the one given.\n\nRaises ValueError if not."),
    {}};
PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(execute)}, {}};
PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "backtester",
                          "Evaluates expressions over daily series.",
                          0,
                          methods,
                          slots,
                          nullptr,
                          nullptr,
                          nullptr};

} // namespace

PyMODINIT_FUNC PyInit_backtester() { return PyModuleDef_Init(&definition); }
