// Evaluates expressions over the series of one era, and measures what comes out. The build sets BACKTESTER_VERSION, so
// that one source makes several builds, and ERA_KEY, the 16 bytes of the era's platform key.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "expression.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>
#include <list>
#include <memory>
#include <numeric>
#include <optional>

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
    // Two roots, for the product of two small sums can be 0; clamped, for rounding must not lead beyond 1.
    return aa > 0 && bb > 0 ? std::clamp(ab / (std::sqrt(aa) * std::sqrt(bb)), -1.0, 1.0) : undefined;
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

struct give_back {
    void operator()(PyObject* owned) const noexcept { Py_DECREF(owned); }
};
using object = std::unique_ptr<PyObject, give_back>;

/// The Python error is set already.
struct python_error : std::exception {};

template <typename Pointer> Pointer* checked(Pointer* result) {
    if (result == nullptr)
        throw python_error();
    return result;
}

[[noreturn]] void raise(PyObject* type, const char* text) {
    PyErr_SetString(type, text);
    throw python_error();
}

/// A series lent by Python.
class lent_series {
  public:
    explicit lent_series(PyObject* owner) {
        if (PyObject_GetBuffer(owner, &view_, PyBUF_RECORDS_RO) < 0)
            throw python_error();
        const bool aligned = view_.len == 0 || std::bit_cast<std::uintptr_t>(view_.buf) % alignof(double) == 0;
        if (view_.ndim == 1 && std::strcmp(view_.format, "d") == 0 && PyBuffer_IsContiguous(&view_, 'C') != 0 &&
            aligned)
            return;
        PyBuffer_Release(&view_);
        raise(PyExc_TypeError, "a series is a contiguous, aligned, one-dimensional buffer of float (format \"d\")");
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

/// Runs the body of a function; C++ exceptions become Python's.
template <typename Body> PyObject* answer(Body body) {
    try {
        return body();
    } catch (const python_error&) {
        return nullptr;
    } catch (const bad_expression& bad) {
        PyErr_SetString(PyExc_ValueError, bad.what());
        return nullptr;
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
}

/// A daemon thread that waits for the lock while the interpreter ends is ended by CPython 3.12 through pthread_exit,
/// which would unwind our frames and abort the process. Like later interpreters, let it sleep until the process is
/// gone.
[[gnu::noinline]] void take_lock_again(PyThreadState* state) {
    struct sleeper {
        bool awake = false;
        ~sleeper() {
            while (!awake)
                pause();
        }
    } guard;
    PyEval_RestoreThread(state);
    guard.awake = true;
}

/// Computes while other threads run.
template <typename Body> auto without_lock(Body body) {
    std::optional<decltype(body())> result;
    std::exception_ptr failure;
    PyThreadState* state = PyEval_SaveThread();
    try {
        result = body();
    } catch (...) {
        failure = std::current_exception();
    }
    take_lock_again(state);
    if (failure)
        std::rethrow_exception(failure);
    return *std::move(result);
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

std::string_view text_of(PyObject* text) {
    Py_ssize_t size = 0;
    const char* bytes = checked(PyUnicode_AsUTF8AndSize(text, &size));
    return {bytes, static_cast<std::size_t>(size)};
}

PyObject* evaluate(PyObject*, PyObject* arguments, PyObject* keywords) {
    return answer([=] {
        const char* names[] = {"expression", "inputs", nullptr};
        PyObject* expression = nullptr;
        PyObject* mapping = nullptr;
        parse(arguments, keywords, "UO:evaluate", names, &expression, &mapping);
        const std::string_view text = text_of(expression);
        if (PyObject_HasAttrString(mapping, "items") == 0)
            raise(PyExc_TypeError, "inputs must be a mapping from names to series");
        const object items(checked(PyMapping_Items(mapping)));
        std::list<lent_series> kept;
        inputs given;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
            PyObject* name = nullptr;
            PyObject* values = nullptr;
            if (PyArg_ParseTuple(PyList_GET_ITEM(items.get(), i), "UO:inputs", &name, &values) == 0)
                throw python_error();
            kept.emplace_back(values);
            if (kept.back().values().size() != kept.front().values().size())
                raise(PyExc_ValueError, "the series differ in length");
            given.emplace(text_of(name), kept.back().values());
        }
        if (kept.empty())
            raise(PyExc_ValueError, "there must be at least one input");
        const std::size_t days = kept.front().values().size();
        const series result = without_lock([&] { return backtester::evaluate(text, given, days); });
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
        if (periods <= 0 || !std::isfinite(periods))
            raise(PyExc_ValueError, "periods_per_year must be a positive number");
        const lent_series lent(returns);
        return PyFloat_FromDouble(without_lock([&] { return sharpe(lent.values(), periods); }));
    });
}

// -- Seal: SipHash-2-4 with 128 bits, as its authors describe it ------------------------------------------------------

using seal_words = std::array<std::uint64_t, 2>;
constexpr std::array<unsigned char, sizeof(seal_words)> era_key = {ERA_KEY};

void mix(std::array<std::uint64_t, 4>& v, int rounds) {
    for (int i = 0; i < rounds; ++i) {
        v[0] += v[1];
        v[2] += v[3];
        v[1] = std::rotl(v[1], 13) ^ v[0];
        v[3] = std::rotl(v[3], 16) ^ v[2];
        v[0] = std::rotl(v[0], 32) + v[3];
        v[2] += v[1];
        v[1] = std::rotl(v[1], 17) ^ v[2];
        v[3] = std::rotl(v[3], 21) ^ v[0];
        v[2] = std::rotl(v[2], 32);
    }
}

/// Of all bytes of the series in turn, which are whole words.
seal_words seal_of(seal_words key, const std::list<lent_series>& parts) {
    std::array<std::uint64_t, 4> v = {key[0] ^ 0x736f6d6570736575u, key[1] ^ 0x646f72616e646f6du ^ 0xeeu,
                                      key[0] ^ 0x6c7967656e657261u, key[1] ^ 0x7465646279746573u};
    const auto absorb = [&v](std::uint64_t word) {
        v[3] ^= word;
        mix(v, 2);
        v[0] ^= word;
    };
    std::uint64_t bytes = 0;
    for (const lent_series& part : parts) {
        bytes += part.values().size_bytes();
        for (double x : part.values())
            absorb(std::bit_cast<std::uint64_t>(x));
    }
    absorb(bytes << 56);
    v[2] ^= 0xeeu;
    mix(v, 4);
    const std::uint64_t first = v[0] ^ v[1] ^ v[2] ^ v[3];
    v[1] ^= 0xddu;
    mix(v, 4);
    return {first, v[0] ^ v[1] ^ v[2] ^ v[3]};
}

PyObject* init_reconstruction(PyObject*, PyObject* arguments, PyObject* keywords) {
    return answer([=] {
        const char* names[] = {"seal", "series", "secret", nullptr};
        const char* seal = nullptr;
        const char* secret = nullptr;
        Py_ssize_t seal_size = 0;
        Py_ssize_t secret_size = 0;
        PyObject* given = nullptr;
        parse(arguments, keywords, "y#O|z#:init_reconstruction", names, &seal, &seal_size, &given, &secret,
              &secret_size);
        auto key = std::bit_cast<seal_words>(era_key);
        if (secret != nullptr && secret_size != sizeof key)
            raise(PyExc_ValueError, "the secret must have 16 bytes");
        if (secret != nullptr)
            std::memcpy(&key, secret, sizeof key);
        const object items(checked(PySequence_List(given)));
        std::list<lent_series> parts;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i)
            parts.emplace_back(PyList_GET_ITEM(items.get(), i));
        const seal_words sum = without_lock([&] { return seal_of(key, parts); });
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

template <PyCFunctionWithKeywords Function>
constexpr PyMethodDef with_keywords(const char* name, const char* doc) noexcept {
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
