// The runtime manifest: which native modules the data directory holds, and what their bytes must be.
#include "module.hpp"

namespace corvane::onboarding {

namespace {

// A manifest can have 100,000 entries. Where an operation is the builtin one on a plain dict or text, which nobody can
// see, it is done directly; every call that somebody has put in its place, or that goes to another module, is made.

/// `str(value)`
object text_form(object value, where line = where::current()) {
    found type = global("str"_n, line);
    if (PyUnicode_CheckExact(value.ptr()) && type.ptr() == reinterpret_cast<PyObject*>(&PyUnicode_Type))
        return value;
    return type(value);
}

/// `iter(sorted(files.items()))` by sorting the keys alone, without a tuple and a tuple comparison for each. The keys
/// of a dict differ, so values never decide, and exact texts have no comparison of their own that somebody could see.
/// Empty if the keys are not all such texts.
object pairs_by_key(handle files) {
    object copy = check(PyDict_Copy(files.ptr()), where::current()); // the caller's may change between two steps
    PyObject* key = nullptr;
    PyObject* previous = nullptr;
    bool ascending = true;
    for (Py_ssize_t position = 0; PyDict_Next(copy.ptr(), &position, &key, nullptr) != 0;) {
        if (!PyUnicode_CheckExact(key))
            return {};
        ascending = ascending && (previous == nullptr || PyUnicode_Compare(previous, key) < 0);
        previous = key;
    }
    if (ascending) {
        object items = invoke(copy, "items"_n);
        return perform(where::current(), PyObject_GetIter, items.ptr());
    }
    object keys = check(PyDict_Keys(copy.ptr()), where::current());
    check(PyList_Sort(keys.ptr()), where::current());
    object values = check(PyList_New(PyList_GET_SIZE(keys.ptr())), where::current());
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(keys.ptr()); ++i)
        PyList_SET_ITEM(values.ptr(), i,
                        Py_NewRef(PyDict_GetItemWithError(copy.ptr(), PyList_GET_ITEM(keys.ptr(), i))));
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
    object files = is_instance(manifest, "dict"_n) ? invoke(manifest, "get"_n, "files"_n, none_listed)
                                                   : global("getattr"_n)(manifest, "files"_n, none_listed);
    return is_instance(files, "dict"_n) ? files : check(PyDict_New(), where::current());
}

object sorted_manifest_pairs(const frame& in) {
    found sort = global("sorted"_n);
    const bool builtin = found_builtin("sorted"_n);
    object files = global("_manifest_files"_n)(in[0]);
    if (builtin && PyDict_CheckExact(files.ptr())) {
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
        if (!is_instance(file_info, "dict"_n))
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
