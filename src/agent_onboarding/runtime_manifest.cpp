// The runtime manifest: which native modules the data directory holds, and what their bytes must be.
#include "module.hpp"

namespace corvane::onboarding {

namespace {

// A manifest can have 100,000 entries. Where an operation is the builtin one on a plain dict or text, which nobody can
// see, it is done directly; every call that somebody has put in its place, or that goes to another module, is made.

/// `isinstance(value, dict)`
bool is_dict(handle value, where line = where::current()) {
    found test = global("isinstance"_n, line);
    found type = global("dict"_n, line);
    if (PyDict_CheckExact(value.ptr()) && type.ptr() == reinterpret_cast<PyObject*>(&PyDict_Type) &&
        is_builtin(test, "isinstance"))
        return true;
    return is_true(test(value, type), line);
}

/// `mapping.get(key)`, or `mapping.get(key, fallback)`
object get(handle mapping, name key, handle fallback = {}, where line = where::current()) {
    if (!PyDict_CheckExact(mapping.ptr()))
        return fallback ? invoke(mapping, method_name("get"_n, line), key, fallback)
                        : invoke(mapping, method_name("get"_n, line), key);
    PyObject* value = call_out(PyDict_GetItemWithError, mapping.ptr(), key.ptr());
    if (value == nullptr && PyErr_Occurred() != nullptr)
        throw_error(line);
    if (value != nullptr)
        return object::borrow(value);
    return fallback ? object::borrow(fallback) : none();
}

/// `str(value)`
object text_form(object value, where line = where::current()) {
    found type = global("str"_n, line);
    if (PyUnicode_CheckExact(value.ptr()) && type.ptr() == reinterpret_cast<PyObject*>(&PyUnicode_Type))
        return value;
    return type(value);
}

/// `sorted(files.items())` by sorting the keys alone, without a tuple and a tuple comparison for each. The keys of a
/// dict differ, so values never decide, and exact texts have no comparison of their own that somebody could see. Empty
/// if the keys are not all such texts.
object pairs_by_key(handle files) {
    const Py_ssize_t count = PyDict_GET_SIZE(files.ptr());
    object keys = check(PyList_New(count), where::current());
    object values = check(PyList_New(count), where::current());
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    PyObject* previous = nullptr;
    bool ascending = true;
    Py_ssize_t position = 0;
    for (Py_ssize_t i = 0; PyDict_Next(files.ptr(), &position, &key, &value) != 0; ++i) {
        if (!PyUnicode_CheckExact(key))
            return {};
        ascending = ascending && (previous == nullptr || PyUnicode_Compare(previous, key) < 0);
        previous = key;
        PyList_SET_ITEM(keys.ptr(), i, Py_NewRef(key));
        PyList_SET_ITEM(values.ptr(), i, Py_NewRef(value));
    }
    if (!ascending) {
        check(PyList_Sort(keys.ptr()), where::current());
        for (Py_ssize_t i = 0; i < count; ++i) {
            PyObject* looked_up = PyDict_GetItemWithError(files.ptr(), PyList_GET_ITEM(keys.ptr(), i));
            if (looked_up == nullptr)
                throw_error(PyExc_RuntimeError, "dictionary changed during iteration", where::current());
            check(PyList_SetItem(values.ptr(), i, Py_NewRef(looked_up)), where::current());
        }
    }
    return call_at(where::current(), handle(reinterpret_cast<PyObject*>(&PyZip_Type)), keys, values);
}

} // namespace

object read_manifest(const frame& in) {
    object path = global("os"_n).attr("path"_n).attr("join"_n)(in[0], "manifest.json"_n);
    if (!path_exists(path)) {
        found incomplete = global("RuntimeModuleDownloadIncomplete"_n);
        raise(incomplete(concat("Runtime manifest is missing at ", path, "."), "relative_path"_a = "manifest.json"_n));
    }
    object data;
    with(in, global("open"_n)(path, "r"_n, "encoding"_a = "utf-8"_n),
         [&](handle file) { data = global("json"_n).attr("load"_n)(file); });
    found record = global("SimpleNamespace"_n);
    object era_id = invoke(local(data, "data"), "get"_n, "era_id"_n);
    object version = invoke(data, "get"_n, "version"_n);
    object no_files = check(PyDict_New(), where::current());
    object files = invoke(data, "get"_n, "files"_n, no_files);
    return record("era_id"_a = era_id, "version"_a = version, "files"_a = files);
}

object manifest_files(const frame& in) {
    handle manifest = in[0];
    object none_listed = check(PyDict_New(), where::current());
    if (manifest.is_none())
        return none_listed;
    object files = is_dict(manifest) ? invoke(manifest, "get"_n, "files"_n, none_listed)
                                     : global("getattr"_n)(manifest, "files"_n, none_listed);
    return is_dict(files) ? files : check(PyDict_New(), where::current());
}

object sorted_manifest_pairs(const frame& in) {
    found sort = global("sorted"_n);
    object files = global("_manifest_files"_n)(in[0]);
    if (is_builtin(sort, "sorted") && PyDict_CheckExact(files.ptr())) {
        if (object pairs = pairs_by_key(files))
            return pairs;
    }
    return perform(where::current(), PyObject_GetIter, sort(invoke(files, "items"_n)).ptr());
}

object next_manifest_entry(const frame& in) {
    object pair[2];
    for (const object& item : iterate(in[0])) {
        unpack(item, pair);
        const auto& [relative_path, file_info] = pair;
        if (!is_dict(file_info))
            continue;
        object kind = text_form(get(file_info, "kind"_n, ""_n));
        if (!is_true(global("is_runtime_module_kind"_n)(kind)))
            continue;
        object platform = get(file_info, "platform"_n);
        if (is_true(platform) && compare(platform, Py_NE, global("CURRENT_PLATFORM"_n)))
            continue;
        object module_name = global("runtime_module_name_from_kind"_n)(kind);
        if (is_true(module_name))
            return tuple(module_name, relative_path, file_info);
    }
    return none();
}

object select_runtime_module_manifest_entry(const frame& in) {
    handle module_name = in[1];
    object aliases = check(PySet_New(nullptr), where::current());
    perform(where::current(), PySet_Add, aliases.ptr(), module_name.ptr());
    if (compare(module_name, Py_EQ, "era_data"_n))
        check(PySet_Add(aliases.ptr(), "vault"_n.ptr()), where::current());
    object entry[3];
    for (const object& item : iterate(global("_runtime_module_manifest_entries"_n)(in[0]))) {
        unpack(item, entry);
        if (contains(aliases, entry[0]))
            return tuple(entry[1], entry[2]);
    }
    return tuple(none(), none());
}

} // namespace corvane::onboarding
