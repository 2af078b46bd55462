// Computes over series of numbers. BACKTESTER_VERSION is set by the build, so that one source makes several builds.
#include <Python.h>

namespace {

PyObject* mean(PyObject*, PyObject* values) {
    if (PySequence_Check(values) == 0) {
        PyErr_Format(PyExc_TypeError, "mean() needs a sequence of numbers, not %.200s", Py_TYPE(values)->tp_name);
        return nullptr;
    }
    // Items of our own: a number's __float__ may change the sequence.
    PyObject* items = PySequence_Tuple(values);
    if (items == nullptr)
        return nullptr;
    const Py_ssize_t count = PyTuple_GET_SIZE(items);
    long double sum = 0; // wider than the values, so that rounding and overflow of the sum do not show
    for (Py_ssize_t i = 0; i < count && PyErr_Occurred() == nullptr; ++i)
        sum += PyFloat_AsDouble(PyTuple_GET_ITEM(items, i));
    Py_DECREF(items);
    if (PyErr_Occurred() != nullptr)
        return nullptr;
    if (count == 0) {
        PyErr_SetString(PyExc_ValueError, "mean() needs at least one value");
        return nullptr;
    }
    return PyFloat_FromDouble(static_cast<double>(sum / static_cast<long double>(count)));
}

int execute(PyObject* module) { return PyModule_AddStringConstant(module, "VERSION", BACKTESTER_VERSION); }

PyMethodDef methods[] = {{"mean", mean, METH_O, "mean(values, /)\n--\n\nThe arithmetic mean of a sequence of numbers."},
                         {}};
PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(execute)}, {}};
PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "backtester",
                          "Computes over series of numbers.",
                          0,
                          methods,
                          slots,
                          nullptr,
                          nullptr,
                          nullptr};

} // namespace

PyMODINIT_FUNC PyInit_backtester() { return PyModuleDef_Init(&definition); }
