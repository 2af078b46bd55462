// The prices of one era, compiled in: SERIES, closing prices by instrument, and DATES, the trading days as YYYYMMDD.
// make_era_data.py says where they come from.
#include "python.hpp"

#include <cstdint>
#include <iterator>

namespace {

#include "era_data.inc"

using python::object;
using python::owned;

constexpr const char* source =
    "Adjusted daily closing prices of AAPL, GOOG, IBM and MSFT from 2004-08-19 to 2013-03-01: "
    "Quandl WIKI Prices, in the public domain, as shipped in the package bokeh_sampledata.";

/// Memory of this module, which is never unloaded, as a read-only memoryview.
template <typename Item> object view_of(const Item& items, const char* format) {
    char* memory = const_cast<char*>(reinterpret_cast<const char*>(items));
    return python::cast(owned(PyMemoryView_FromMemory(memory, sizeof items, PyBUF_READ)), format);
}

int execute(PyObject* module) {
    return python::guarded(-1, [=] {
        const object series = owned(PyDict_New());
        for (std::size_t i = 0; i < std::size(names); ++i)
            python::require(PyDict_SetItemString(series.get(), names[i], view_of(prices[i], "d").get()) == 0);
        python::add(module, "SERIES", series);
        python::add(module, "DATES", view_of(dates, "i"));
        python::add(module, "SEAL", owned(PyBytes_FromStringAndSize(reinterpret_cast<const char*>(seal), sizeof seal)));
        python::add(module, "ERA_ID", owned(PyLong_FromLong(3)));
        python::add(module, "SOURCE", owned(PyUnicode_FromString(source)));
        return 0;
    });
}

PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(execute)}, {}};
PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "era_data", "The prices of one era.", 0, nullptr, slots, nullptr, nullptr, nullptr};

} // namespace

PyMODINIT_FUNC PyInit_era_data() { return PyModuleDef_Init(&definition); }
