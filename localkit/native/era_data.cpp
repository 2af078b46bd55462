// The data of one era, compiled in. The series is made up; it stands in for the data of a real era.
#include <Python.h>

#include <iterator>

namespace {

constexpr char era_id[] = "local-3";
constexpr double series[] = {101.0, 102.5, 101.75, 103.25, 104.0, 103.5, 105.25, 106.0};

PyObject* prices(PyObject*, PyObject*) {
    static Py_ssize_t shape[] = {std::size(series)};
    static Py_ssize_t strides[] = {sizeof(double)};
    static char format[] = "d";
    Py_buffer view = {};
    view.buf = const_cast<double*>(series); // read-only all the same; a native module is never unloaded
    view.len = sizeof series;
    view.itemsize = sizeof(double);
    view.readonly = 1;
    view.ndim = 1;
    view.format = format;
    view.shape = shape;
    view.strides = strides;
    return PyMemoryView_FromBuffer(&view);
}

int execute(PyObject* module) { return PyModule_AddStringConstant(module, "ERA_ID", era_id); }

PyMethodDef methods[] = {
    {"prices", prices, METH_NOARGS, "prices()\n--\n\nThe era's closing prices, a read-only memoryview of float."}, {}};
PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(execute)}, {}};
PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "era_data", "The data of one era.", 0, methods, slots, nullptr, nullptr, nullptr};

} // namespace

PyMODINIT_FUNC PyInit_era_data() { return PyModuleDef_Init(&definition); }
