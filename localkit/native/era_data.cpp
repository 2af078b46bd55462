// The prices of one era, compiled in. make_era_data.py says where they come from.
#include <Python.h>

#include <cstdint>
#include <iterator>

namespace {

#include "era_data.inc"

constexpr int era_id = 3;
constexpr const char* source =
    "Adjusted daily closing prices of AAPL, GOOG, IBM and MSFT from 2004-08-19 to 2013-03-01: "
    "Quandl WIKI Prices, in the public domain, as shipped in the package bokeh_sampledata.";

/// Memory of this module, which is never unloaded, as a read-only memoryview.
template <typename Item> PyObject* view_of(const Item* items, Py_ssize_t count, const char* format) {
    Py_ssize_t stride = sizeof(Item);
    Py_buffer view = {};
    view.buf = const_cast<Item*>(items);
    view.len = count * stride;
    view.itemsize = stride;
    view.readonly = 1;
    view.ndim = 1;
    view.format = const_cast<char*>(format);
    view.shape = &count;
    view.strides = &stride;
    return PyMemoryView_FromBuffer(&view);
}

PyObject* dates_of_era(PyObject*, PyObject*) { return view_of(dates, std::ssize(dates), "i"); }

PyObject* series_of(PyObject*, PyObject* name) {
    for (std::size_t i = 0; i < std::size(names); ++i) {
        if (PyUnicode_Check(name) && PyUnicode_CompareWithASCIIString(name, names[i]) == 0)
            return view_of(prices[i], std::ssize(prices[i]), "d");
    }
    PyErr_SetObject(PyExc_KeyError, name);
    return nullptr;
}

PyObject* names_of_series(PyObject*, PyObject*) {
    PyObject* made = PyTuple_New(std::size(names));
    for (std::size_t i = 0; made != nullptr && i < std::size(names); ++i) {
        PyObject* text = PyUnicode_FromString(names[i]);
        if (text == nullptr)
            Py_CLEAR(made);
        else
            PyTuple_SET_ITEM(made, static_cast<Py_ssize_t>(i), text);
    }
    return made;
}

int execute(PyObject* module) {
    PyObject* bytes = PyBytes_FromStringAndSize(reinterpret_cast<const char*>(seal), sizeof seal);
    const int added = PyModule_AddObjectRef(module, "SEAL", bytes);
    Py_XDECREF(bytes);
    if (added < 0 || PyModule_AddIntConstant(module, "ERA_ID", era_id) < 0)
        return -1;
    return PyModule_AddStringConstant(module, "SOURCE", source);
}

PyMethodDef methods[] = {
    {"names", names_of_series, METH_NOARGS, "names()\n--\n\nThe instruments, a tuple of str."},
    {"series", series_of, METH_O,
     "series(name, /)\n--\n\nAn instrument's adjusted closing price of each day: a read-only memoryview of float, the "
     "module's own\nmemory. Raises KeyError for an unknown name."},
    {"dates", dates_of_era, METH_NOARGS, "dates()\n--\n\nThe trading days, a read-only memoryview of int: YYYYMMDD."},
    {}};
PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(execute)}, {}};
PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "era_data", "The prices of one era.", 0, methods, slots, nullptr, nullptr, nullptr};

} // namespace

PyMODINIT_FUNC PyInit_era_data() { return PyModuleDef_Init(&definition); }
