// What the rooms of the module share: each function body, grouped by the file that holds it. Bodies reach one another
// through the module's namespace at call time, never through these declarations, so that a caller can replace any name.
#pragma once

#include "py/function.hpp"

#ifndef CORVANE_DEFAULT_SERVER_URL
#error "the build sets the address of the service"
#endif

namespace corvane::onboarding {

using namespace py; // NOLINT(google-build-using-namespace): the layer's vocabulary is this module's language

/// `os.path.exists(path)`
inline bool path_exists(handle path, where line = where::current()) {
    return is_true(global("os"_n, line).attr("path"_n, line).attr("exists"_n, line)(path), line);
}

// A manifest can have 100,000 entries. Where an operation is the builtin one on a plain value, which nobody can see, it
// is done directly; every call that somebody has put in its place, or that goes to another module, is made.

/// `isinstance(value, type)`
inline bool is_instance(handle value, name type, where line = where::current()) {
    found test = global("isinstance"_n, line);
    const bool builtin = found_builtin("isinstance"_n);
    found class_or_tuple = global(type, line);
    if (!builtin)
        return is_true(test(value, class_or_tuple), line);
    if (reinterpret_cast<PyObject*>(Py_TYPE(value.ptr())) == class_or_tuple.ptr())
        return true; // what PyObject_IsInstance looks at first
    return perform(line, PyObject_IsInstance, value.ptr(), class_or_tuple.ptr()) != 0;
}

/// `mapping.get(key)`, or `mapping.get(key, fallback)`
inline object get(handle mapping, name key, handle fallback = {}, where line = where::current()) {
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

/// `raise type(message)`
[[noreturn, gnu::always_inline]] inline void raise_message(const found& type, const char* message,
                                                           where line = where::current()) {
    raise(type(concat({message, line})), line);
}

// from entry_points.cpp: registration, login, options, records
object exception_chain_detail(const frame& in);
object normalize_key(const frame& in);
object resolve_invite_code(const frame& in);
object resolve_optional_invite_code(const frame& in);
object register_wallet(const frame& in);
object login(const frame& in);
object configure(const frame& in);
object auth_token_repr(const frame& in);
/// Where the service is unless the caller names another address.
inline constexpr literal default_server_url = CORVANE_DEFAULT_SERVER_URL;
/// The option table, created while the module is initialised.
object default_options();
object option_types();

// from runtime_loading.cpp: content-addressed copies, import of native modules, verified loading
object sha256_file(const frame& in);
object content_addressed_extension_path(const frame& in);
object prune_runtime_extension_copies(const frame& in);
object load_extension_from_path(const frame& in);
object load_manifest_runtime_module(const frame& in);
object load_runtime_modules_from_manifest(const frame& in);
object create_runtime_freshness_guard(const frame& in);
object load_per_era_backtester(const frame& in);

// from runtime_manifest.cpp: manifest.json
object read_manifest(const frame& in);
object manifest_files(const frame& in);
object sorted_manifest_pairs(const frame& in);
object next_manifest_entry(const frame& in);
object select_runtime_module_manifest_entry(const frame& in);

// from eras.cpp: /eras and the named universe
object fetch_eras_payload(const frame& in);
object safe_named_universe(const frame& in);
object append_unique_named_universe(const frame& in);
object append_allowed_named_universes(const frame& in);
object active_era_named_universe_candidates(const frame& in);
object first_allowed_named_universe_from_era_config(const frame& in);
object resolve_active_named_universe(const frame& in);

// from bootstrap.cpp: the local sync manager, the local runtime, the wiring of both into the kit
object sync_manager_init(const frame& in);
object sync_manager_get_manifest(const frame& in);
object sync_manager_acquire(const frame& in);
object sync_manager_release(const frame& in);
object sync_manager_request_for_sync(const frame& in);
object sync_manager_register_era_callback(const frame& in);
object sync_manager_unregister_era_callback(const frame& in);
object read_json_if_present(const frame& in);
object local_vocabulary_path(const frame& in);
object bootstrap_local_runtime_from_config(const frame& in);
object propagate_auth(const frame& in);
object ensure_runtime_bootstrapped(const frame& in);

// from workspace.cpp: HEARTBEAT.md and the AGENTS.md fragment
object find_heartbeat(const frame& in);
object inject_heartbeat(const frame& in);
object update_nudge(const frame& in);
object get_agents_md_fragment(const frame& in);
object heartbeat_static_section();
object nudge_texts();
object agents_md_fragment();

// from wallet_store.cpp: the data directory and wallet.key
/// Where the data directory is unless the caller names another one.
inline constexpr literal default_data_dir = "~/.corvane/";
object canonical_data_dir(const frame& in);
object wallet_key_path(const frame& in);
object unsafe_wallet_error(const frame& in);
object check_wallet_fd(const frame& in);
object read_wallet_key(const frame& in);
object write_wallet_key(const frame& in);

} // namespace corvane::onboarding
