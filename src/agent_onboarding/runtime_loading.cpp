// Native runtime modules: content-addressed copies, their import, and loading only what the manifest vouches for.
#include "module.hpp"

namespace corvane::onboarding {

namespace {

// A build is imported from a copy named by its digest: another build of the same file is another copy, so that the one
// that is in use never changes under its process, and the same build is recognised by its name.
constexpr long block_size = 1 << 20; // bytes that are read at once while hashing
constexpr long digits_in_name = 16;  // of the digest, in the name of a copy

/// `os.path.dirname(os.path.realpath(path))`
object directory_of(handle path) {
    callee dirname = global("os"_n).attr("path"_n).attr("dirname"_n);
    return dirname(real_path(path));
}

/// `digest[:16]`
object first_digits(handle digest) {
    object stop = integer(digits_in_name);
    return get_item(digest, check(PySlice_New(nullptr, stop.ptr(), nullptr)));
}

/// The directory as the caller named it with the home directory expanded; its real path goes first on sys.path.
object expanded_on_path(handle data_dir) {
    callee expand = global("os"_n).attr("path"_n).attr("expanduser"_n);
    object expanded = expand(is_true(data_dir) ? data_dir : interned(node_of<default_data_dir>));
    object runtime_root = real_path(expanded);
    // First, so that a module that imports another one finds the build beside it before any that is installed.
    if (!contains(global("sys"_n).attr("path"_n), runtime_root))
        invoke(global("sys"_n).attr("path"_n), "insert"_n, integer(0), runtime_root);
    return expanded;
}

/// The very build: imported from the copy for these bytes, and stamped with their digest. The path alone would accept
/// a module whose execution failed, the digest alone one that was imported from another data directory.
bool is_same_build(handle module, handle runtime_path, handle digest) {
    return !module.is_none() && compare(get_attribute(module, "__file__"_n, none()), Py_EQ, runtime_path) &&
           compare(get_attribute(module, "_corvane_module_sha256"_n, none()), Py_EQ, digest);
}

/// Puts the module table back, unless the module or something else has changed the entry itself: a module may replace
/// itself there while it is executed, and whoever does so knows better.
void restore_module_table(handle module_name, handle module, handle previous) {
    object current = invoke(global("sys"_n).attr("modules"_n), "get"_n, module_name);
    if (!current.is(module))
        return;
    if (previous.is_none())
        invoke(global("sys"_n).attr("modules"_n), "pop"_n, module_name, none());
    else
        set_item(global("sys"_n).attr("modules"_n), module_name, previous);
}

/// A copy that may be pruned, as (modification time in nanoseconds, path). Empty if it cannot be examined: another
/// process may have pruned it since the directory was listed.
object modified_and_path(const frame& in, handle path) {
    try {
        object status = global("os"_n).attr("stat"_n)(path);
        return tuple(status.attr("st_mtime_ns"_n), path);
    } catch (error& caught) {
        except_scope handling(in, caught, "OSError"_n);
        return {};
    }
}

/// A copy that cannot be deleted, on a read-only file system for instance, takes space and does no other harm.
void unlink_if_possible(const frame& in, handle path) {
    try {
        global("os"_n).attr("unlink"_n)(path);
    } catch (error& caught) {
        except_scope handling(in, caught, "OSError"_n);
    }
}

} // namespace

object sha256_file(const frame& in, handle path) {
    object digest = global("hashlib"_n).attr("sha256"_n)();
    with(in, global("open"_n)(path, "rb"_n), [&](handle file) {
        // Block by block: the memory in use does not grow with the file, and Ctrl-C is noticed between two blocks.
        object size = integer(block_size);
        for (;;) {
            check_signals();
            object block = invoke(file, "read"_n, size);
            if (!is_true(block))
                break;
            invoke(digest, "update"_n, block);
        }
    });
    return invoke(digest, "hexdigest"_n);
}

object content_addressed_extension_path(const frame& in, handle module_name, handle path, handle digest) {
    object root = directory_of(path);
    callee join_paths = global("os"_n).attr("path"_n).attr("join"_n);
    object beginning = concat(".corvane-runtime-"_n, module_name, "-"_n);
    object start_of_digest = first_digits(digest);
    // f".corvane-runtime-{module_name}-{digest[:16]}.so"
    object runtime_path = join_paths(root, concat(beginning, start_of_digest, ".so"_n));
    // The name tells the bytes; a copy that is there already was made of the same ones.
    if (path_exists(runtime_path))
        return runtime_path;
    try {
        // A link takes no space, and keeps the bytes when a sync puts a new file in the place of the old one.
        global("os"_n).attr("link"_n)(path, runtime_path);
    } catch (error& caught) {
        // Another file system, or one without hard links.
        except_scope handling(in, caught, "OSError"_n);
        // copy2 keeps the time of modification, by which copies are pruned.
        global("shutil"_n).attr("copy2"_n)(path, runtime_path);
    }
    return runtime_path;
}

object prune_runtime_extension_copies(const frame& in, handle module_name, handle keep_path, handle max_copies) {
    object root = directory_of(keep_path);
    object prefix = concat(".corvane-runtime-"_n, module_name, "-"_n);
    object keep_real = real_path(keep_path);
    object candidates = new_list();
    // A directory that cannot be listed keeps its copies; the module is loaded by now.
    object names;
    try {
        names = global("os"_n).attr("listdir"_n)(root);
    } catch (error& caught) {
        except_scope handling(in, caught, "OSError"_n);
        return none();
    }
    for (const object& name : iterate(names)) {
        if (!is_true(invoke(name, "startswith"_n, prefix)) || !is_true(invoke(name, "endswith"_n, ".so"_n)))
            continue;
        if (object candidate = modified_and_path(in, join_path(root, name)))
            append(candidates, candidate);
    }
    // The copy that is kept counts as one of them, wherever it is in the order.
    if (compare(global("len"_n)(candidates), Py_LE, max_copies))
        return none();

    object keep = new_set();
    add_to(keep, keep_real);
    callee sort = global("sorted"_n);
    object by_time = inner_statement("_prune_runtime_extension_copies.by_time"_n);
    object newest_first = sort(candidates, "key"_a = by_time, "reverse"_a = true_value());
    for (const object& candidate : iterate(newest_first)) {
        if (compare(global("len"_n)(keep), Py_GE, max_copies))
            break;
        object resolved = real_path(get_item(candidate, integer(1)));
        add_to(keep, resolved);
    }
    for (const object& candidate : iterate(candidates)) {
        object path = get_item(candidate, integer(1));
        if (!contains(keep, real_path(path)))
            unlink_if_possible(in, path);
    }
    return none();
}

object load_extension_from_path(const frame& in, handle module_name, handle path) {
    // Hashed here although callers compare digests, too: the file can be replaced in between, and the copy is named
    // for the bytes that are imported.
    object digest = global("_sha256_file"_n)(path);
    object runtime_path = global("_content_addressed_extension_path"_n)(module_name, path, digest);
    object previous = invoke(global("sys"_n).attr("modules"_n), "get"_n, module_name);
    if (is_same_build(previous, runtime_path, digest))
        return previous;

    object spec = global("importlib"_n).attr("util"_n).attr("spec_from_file_location"_n)(module_name, runtime_path);
    if (spec.is_none() || spec.attr("loader"_n).is_none()) {
        callee runtime_error = global("RuntimeError"_n);
        raise(runtime_error(concat("Could not create import spec for "_n, runtime_path)));
    }
    // The entry of the module table comes first, as in the interpreter's own import: a module may look itself up.
    object module = global("importlib"_n).attr("util"_n).attr("module_from_spec"_n)(spec);
    set_item(global("sys"_n).attr("modules"_n), module_name, module);
    try {
        // The stamps come last: a module that fails half-way is never taken for a build that can be used.
        spec.attr("loader"_n).attr("exec_module"_n)(module);
        set_attr(module, "_corvane_module_sha256"_n, digest);
        set_attr(module, "_corvane_module_source_path"_n, real_path(path));
        global("_prune_runtime_extension_copies"_n)(module_name, runtime_path);
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        restore_module_table(module_name, module, previous);
        raise_again(caught);
    }
    return module;
}

object load_manifest_runtime_module(const frame& in, handle data_dir, handle module_name, handle expected_sha256,
                                    handle manifest) {
    object expanded = expanded_on_path(data_dir);
    // A caller with many modules has read the manifest already.
    object read = object::borrow(manifest);
    if (read.is_none())
        read = global("_read_manifest"_n)(expanded);
    object entry[2];
    unpack(global("_select_runtime_module_manifest_entry"_n)(read, module_name), entry);
    const auto& [relative_path, file_info] = entry;
    if (relative_path.is_none()) {
        callee incomplete = global("RuntimeModuleDownloadIncomplete"_n);
        raise(incomplete(concat("Manifest does not contain a runtime module for "_n, repr(module_name), "."_n),
                         "module_name"_a = module_name, "expected_sha256"_a = expected_sha256));
    }
    object expected =
        is_true(expected_sha256) ? object::borrow(expected_sha256) : invoke(file_info, "get"_n, "sha256"_n);
    // The digest that the caller insists on wins over the manifest's.
    // A file that is missing means a sync that has not finished, which another sync repairs; it is told apart from
    // bytes that are wrong.
    object candidate = join_path(expanded, relative_path);
    if (!path_exists(candidate)) {
        callee incomplete = global("RuntimeModuleDownloadIncomplete"_n);
        raise(incomplete(concat("Runtime module "_n, repr(module_name), " is missing at "_n, candidate, "."_n),
                         "module_name"_a = module_name, "relative_path"_a = relative_path,
                         "expected_sha256"_a = expected));
    }
    object actual = global("_sha256_file"_n)(candidate);
    // Before anything is imported: native code runs with all the rights of the process.
    if (is_true(expected) && compare(actual, Py_NE, expected)) {
        callee mismatch = global("RuntimeModuleHashMismatch"_n);
        raise(mismatch(concat("Runtime module "_n, repr(module_name), " hash mismatch at "_n, candidate,
                              ": expected "_n, expected, ", got "_n, actual, "."_n),
                       "module_name"_a = module_name, "relative_path"_a = relative_path, "expected_sha256"_a = expected,
                       "actual_sha256"_a = actual));
    }
    object module;
    try {
        module = global("_load_extension_from_path"_n)(module_name, candidate);
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        callee reload_failed = global("RuntimeModuleReloadFailed"_n);
        object failure = reload_failed(concat("Runtime module "_n, repr(module_name), " failed to load from "_n,
                                              candidate, ": "_n, caught.value()),
                                       "module_name"_a = module_name, "relative_path"_a = relative_path,
                                       "expected_sha256"_a = expected, "actual_sha256"_a = actual);
        raise_from(failure, caught.value());
    }
    if (is_true(expected)) { // the file may have changed between the two times it was hashed
        object stamped = get_attribute(module, "_corvane_module_sha256"_n, none());
        if (compare(stamped, Py_NE, expected)) {
            callee mismatch = global("RuntimeModuleHashMismatch"_n);
            raise(mismatch(concat("Runtime module "_n, repr(module_name), " loaded with unexpected hash."_n),
                           "module_name"_a = module_name, "relative_path"_a = relative_path,
                           "expected_sha256"_a = expected, "actual_sha256"_a = stamped));
        }
    }
    return module;
}

object load_runtime_modules_from_manifest(const frame&, handle data_dir, handle manifest) {
    object loaded = new_dict();
    callee list_of = global("list"_n);
    // The era data first, for the other modules are initialised with it.
    object entries = list_of(global("_runtime_module_manifest_entries"_n)(manifest));
    callee sort = entries.attr("sort"_n);
    object era_data_first = inner_statement("_load_runtime_modules_from_manifest.era_data_first"_n);
    sort("key"_a = era_data_first);
    object entry[3];
    for (const object& item : iterate(entries)) {
        unpack(item, entry);
        const auto& [module_name, relative_path, file_info] = entry;
        callee load = global("_load_manifest_runtime_module"_n);
        object expected = invoke(file_info, "get"_n, "sha256"_n);
        set_item(loaded, module_name,
                 load(data_dir, module_name, "expected_sha256"_a = expected, "manifest"_a = manifest));
    }
    return loaded;
}

object create_runtime_freshness_guard(const frame&, handle data_dir) {
    // The guard calls it from wherever the kit evaluates signals, with the directory that it was made for.
    object load = inner_statement("create_runtime_freshness_guard._load"_n, {data_dir});
    return global("RuntimeFreshnessGuard"_n)("data_dir"_a = data_dir, "module_loader"_a = load);
}

object load_per_era_backtester(const frame& in, handle data_dir) {
    object expanded = expanded_on_path(data_dir);
    object manifest;
    try {
        manifest = global("_read_manifest"_n)(expanded);
    } catch (error& caught) {
        except_scope handling(in, caught, "RuntimeModuleDownloadIncomplete"_n);
        callee incomplete = global("RuntimeModuleDownloadIncomplete"_n);
        // What the caller has to do is the same, whatever was missing: sync. What is known of it goes along.
        object relative_path = get_attribute(caught.value(), "relative_path"_n, "manifest.json"_n);
        object expected = get_attribute(caught.value(), "expected_sha256"_n, none());
        object actual = get_attribute(caught.value(), "actual_sha256"_n, none());
        object failure = incomplete("Per-era backtester runtime is required; sync the runtime manifest before "
                                    "loading the SDK backtester."_n,
                                    "module_name"_a = "backtester"_n, "relative_path"_a = relative_path,
                                    "expected_sha256"_a = expected, "actual_sha256"_a = actual);
        raise_from(failure, caught.value());
    }
    object loaded = global("_load_runtime_modules_from_manifest"_n)(expanded, manifest);
    object module = invoke(loaded, "get"_n, "backtester"_n);
    if (module.is_none())
        raise_backtester_missing();
    global("logger"_n).attr("info"_n)("Loaded per-era backtester from manifest in %s"_n, expanded);
    return module;
}

} // namespace corvane::onboarding
