// The runtime manifest: which native modules the data directory holds, and what their bytes must be.
#include "module.hpp"

namespace corvane::onboarding {

namespace {

/// `str(value)`
object text_form(object value) {
    callee type = global("str"_n);
    if (PyUnicode_CheckExact(value.ptr()) && type.is(handle(&PyUnicode_Type)))
        return value; // one of 100,000
    return type(value);
}

/// `sorted(files.items())` by sorting the keys alone, without a tuple and a tuple comparison for each: with 100,000
/// entries in half the time. The keys of a dict differ, so values never decide, and exact texts have no comparison of
/// their own that somebody could see. Empty if the keys are not all such texts.
object pairs_by_key(handle files) {
    object copy = check(PyDict_Copy(files.ptr())); // the caller's may change between two entries
    PyObject* key = nullptr;
    PyObject* previous = nullptr;
    bool ascending = true;
    for (Py_ssize_t position = 0; PyDict_Next(copy.ptr(), &position, &key, nullptr) != 0;) {
        if (!PyUnicode_CheckExact(key))
            return {};
        ascending = ascending && (previous == nullptr || PyUnicode_Compare(previous, key) < 0);
        previous = key;
    }
    if (ascending)
        return invoke(copy, "items"_n);
    object keys = check(PyDict_Keys(copy.ptr()));
    check(PyList_Sort(keys.ptr()));
    object values = check(PyList_New(PyList_GET_SIZE(keys.ptr())));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(keys.ptr()); ++i)
        PyList_SET_ITEM(values.ptr(), i,
                        Py_NewRef(PyDict_GetItemWithError(copy.ptr(), PyList_GET_ITEM(keys.ptr(), i))));
    return check(PyObject_CallFunctionObjArgs(handle(&PyZip_Type).ptr(), keys.ptr(), values.ptr(), nullptr));
}

} // namespace

object read_manifest(const frame& in, handle data_dir) {
    object path = join_path(data_dir, "manifest.json"_n);
    if (!path_exists(path)) {
        callee incomplete = global("RuntimeModuleDownloadIncomplete"_n);
        raise(incomplete(concat("Runtime manifest is missing at "_n, path, "."_n),
                         "relative_path"_a = "manifest.json"_n));
    }
    object data;
    with(in, global("open"_n)(path, "r"_n, "encoding"_a = "utf-8"_n),
         [&](handle file) { data = global("json"_n).attr("load"_n)(file); });
    callee record = global("SimpleNamespace"_n);
    object era_id = invoke(local(data, "data"), "get"_n, "era_id"_n);
    object version = invoke(data, "get"_n, "version"_n);
    // A manifest without files is valid: nothing has been published for the era yet.
    object no_files = new_dict();
    object files = invoke(data, "get"_n, "files"_n, no_files);
    return record("era_id"_a = era_id, "version"_a = version, "files"_a = files);
}

object manifest_files(const frame&, handle manifest) {
    object none_listed = new_dict();
    if (manifest.is_none())
        return none_listed;
    // The JSON object itself, or the record that is made of it; anything but a dict in there lists nothing.
    object files = is_instance(manifest, "dict"_n) ? get(manifest, "files"_n, none_listed)
                                                   : get_attribute(manifest, "files"_n, none_listed);
    return is_instance(files, "dict"_n) ? files : new_dict();
}

object sorted_files(const frame&, handle manifest) {
    callee sort = global("sorted"_n);
    object files = global("_manifest_files"_n)(manifest);
    static const PyMethodDef* definition = nullptr;
    if (is_builtin(sort, "sorted", definition) && PyDict_CheckExact(files.ptr())) {
        if (object pairs = pairs_by_key(files))
            return pairs;
    }
    return sort(invoke(files, "items"_n));
}

object runtime_module(const frame&, handle relative_path, handle file_info) {
    // The manifest was only parsed so far: an entry can be any JSON value.
    if (!is_instance(file_info, "dict"_n))
        return none();
    object kind = text_form(get(file_info, "kind"_n, ""_n));
    if (!is_true(global("is_runtime_module_kind"_n)(kind)))
        return none();
    // An entry without a platform is for every one.
    object platform = get(file_info, "platform"_n);
    if (is_true(platform) && compare(platform, Py_NE, global("CURRENT_PLATFORM"_n)))
        return none();
    object module_name = global("runtime_module_name_from_kind"_n)(kind);
    return is_true(module_name) ? tuple(module_name, relative_path, file_info) : none();
}

object select_runtime_module_manifest_entry(const frame&, handle manifest, handle module_name) {
    object aliases = new_set();
    add_to(aliases, module_name);
    if (compare(module_name, Py_EQ, "era_data"_n))
        add_to(aliases, "vault"_n); // what older manifests call it
    object entry[3];
    // The first one wins. Entries come by path, so that it is the same one on every machine.
    for (const object& item : iterate(global("_runtime_module_manifest_entries"_n)(manifest))) {
        unpack(item, entry);
        const auto& [candidate, relative_path, file_info] = entry;
        if (contains(aliases, candidate))
            return tuple(relative_path, file_info);
    }
    return tuple(none(), none());
}

} // namespace corvane::onboarding
