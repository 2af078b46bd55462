// A native module whose initialisation does what MODE says.
#include <Python.h>

static int execute(PyObject* module) {
    PyObject* modules = PyImport_GetModuleDict();
    const char* name = PyModule_GetName(module);
    switch (MODE) {
    case 1:
        PyErr_SetString(PyExc_RuntimeError, "init failed");
        return -1;
    case 2:
        return -1; // without an error
    case 3:
        PyErr_SetString(PyExc_RuntimeError, "set all the same");
        return 0;
    case 4:
        PyErr_SetNone(PyExc_KeyboardInterrupt);
        return -1;
    case 5:
        return PyDict_DelItemString(modules, name);
    case 6:
        PyDict_SetItemString(modules, name, Py_None);
        PyErr_SetString(PyExc_ValueError, "replaced, then failed");
        return -1;
    default:
        return 0;
    }
}

static PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(execute)}, {0, nullptr}};
static PyModuleDef definition = {PyModuleDef_HEAD_INIT, "tiny", nullptr, 0, nullptr, slots, nullptr, nullptr, nullptr};

PyMODINIT_FUNC PyInit_backtester() { return PyModuleDef_Init(&definition); }
