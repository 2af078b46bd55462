// What the files of the module share: each function body, grouped by the file that holds it. Bodies reach one another
// through the module's namespace at call time, never through these declarations, so that a caller can replace any name.
//
// A body takes its parameters in the order of its declaration; how many there are is checked at import. The frame is
// what except clauses and tracebacks need.
#pragma once

#include "py/function.hpp"

#ifndef CORVANE_DEFAULT_SERVER_URL
#error "the build sets the address of the service"
#endif

namespace corvane::onboarding {

using namespace py; // NOLINT(google-build-using-namespace): the layer's vocabulary is this module's language

// from shared.cpp: what more than one file writes
/// Whether a function is the one of that name in the builtins, not what somebody has put in its place. The
/// static definition that it was made from is kept by the caller, for the next time: comparing names takes longer.
bool is_builtin(handle function, std::string_view wanted, const PyMethodDef*& definition) noexcept;
/// `isinstance(value, type)`
bool is_instance(handle value, name type, location at = location::current());
/// `mapping.get(key)`, or `mapping.get(key, default)`
object get(handle mapping, handle key, handle fallback = {}, location at = location::current());
/// `os.path.exists(path)`, `os.path.join(directory, name)`, `os.path.realpath(path)`
bool path_exists(operand path);
object join_path(operand directory, handle name);
object real_path(operand path);
/// `getattr(self, attribute, fallback)`
object get_attribute(operand self, name attribute, handle fallback);
/// `auth.name`, of the kit's module
callee auth(name wanted, location at = location::current());
/// `value in (".", "..") or "/" in value or "\\" in value or "\0" in value`: more than one segment of a path, or none.
bool leaves_segment(operand value);
/// `logger.warning(text, caught)`
void warn(name text, const error& caught, location at = location::current());
/// `raise RuntimeError(message) from caught`
[[noreturn]] void raise_for(const error& caught, operand message);
/// Makes the manager the kit's active one. The caller is authenticated already, so a failure is only logged, unless the
/// whole runtime is wanted.
void activate(const frame& in, handle manager, handle strict);
/// The manifest is there and has no backtester.
[[noreturn]] void raise_backtester_missing(location at = location::current());

// from entry_points.cpp: registration, login, options, records
object exception_chain_detail(const frame& in, handle exc);
object normalize_key(const frame& in, handle raw_key);
object resolve_invite_code(const frame& in, handle invite_code);
object resolve_optional_invite_code(const frame& in, handle invite_code);
object register_wallet(const frame& in, handle invite_code, handle data_dir, handle bootstrap_runtime);
object login(const frame& in, handle private_key, handle bootstrap_runtime);
object configure(const frame& in, handle kwargs);
object auth_token_repr(const frame& in, handle self);
/// Where the service is unless the caller names another address.
inline constexpr literal default_server_url = CORVANE_DEFAULT_SERVER_URL;
/// The option table, created while the module is initialised.
object default_options();
object option_types();

// from runtime_loading.cpp: content-addressed copies, import of native modules, verified loading
object sha256_file(const frame& in, handle path);
object content_addressed_extension_path(const frame& in, handle module_name, handle path, handle digest);
object prune_runtime_extension_copies(const frame& in, handle module_name, handle keep_path, handle max_copies);
object load_extension_from_path(const frame& in, handle module_name, handle path);
object load_manifest_runtime_module(const frame& in, handle data_dir, handle module_name, handle expected_sha256,
                                    handle manifest);
object load_runtime_modules_from_manifest(const frame& in, handle data_dir, handle manifest);
object create_runtime_freshness_guard(const frame& in, handle data_dir);
object load_per_era_backtester(const frame& in, handle data_dir);

// from runtime_manifest.cpp: manifest.json
object read_manifest(const frame& in, handle data_dir);
object manifest_files(const frame& in, handle manifest);
object sorted_files(const frame& in, handle manifest);
object runtime_module(const frame& in, handle relative_path, handle file_info);
object select_runtime_module_manifest_entry(const frame& in, handle manifest, handle module_name);

// from eras.cpp: /eras and the named universe
object fetch_eras_payload(const frame& in, handle am);
object safe_named_universe(const frame& in, handle value);
object append_unique_named_universe(const frame& in, handle candidates, handle value);
object append_allowed_named_universes(const frame& in, handle candidates, handle values);
object active_era_named_universe_candidates(const frame& in, handle era);
object first_allowed_named_universe_from_era_config(const frame& in, handle era_config);
object resolve_active_named_universe(const frame& in, handle am);

// from bootstrap.cpp: the local sync manager, the local runtime, the wiring of both into the kit
object sync_manager_init(const frame& in, handle self, handle manifest, handle runtime_freshness_guard);
object sync_manager_get_manifest(const frame& in, handle self);
object sync_manager_acquire(const frame& in, handle self);
object sync_manager_release(const frame& in, handle self);
object sync_manager_request_for_sync(const frame& in, handle self);
object sync_manager_register_era_callback(const frame& in, handle self, handle callback);
object sync_manager_unregister_era_callback(const frame& in, handle self, handle callback);
object read_json_if_present(const frame& in, handle path);
object local_vocabulary_path(const frame& in, handle data_dir, handle named_universe);
object bootstrap_local_runtime_from_config(const frame& in, handle am);
object propagate_auth(const frame& in, handle am, handle strict);
object ensure_runtime_bootstrapped(const frame& in, handle strict);

// from workspace.cpp: HEARTBEAT.md and the AGENTS.md fragment
object find_heartbeat(const frame& in, handle working_dir);
object inject_heartbeat(const frame& in, handle working_dir);
object update_nudge(const frame& in, handle trigger, handle context);
object get_agents_md_fragment(const frame& in);
object heartbeat_static_section();
object nudge_texts();
object agents_md_fragment();

// from wallet_store.cpp: the data directory and wallet.key
/// Where the data directory is unless the caller names another one.
inline constexpr literal default_data_dir = "~/.corvane/";
object canonical_data_dir(const frame& in, handle data_dir);
object wallet_key_path(const frame& in, handle data_dir);
object unsafe_wallet_error(const frame& in, handle wallet_path);
object check_wallet_fd(const frame& in, handle wallet_path, handle fd);
object read_wallet_key(const frame& in, handle data_dir);
object write_wallet_key(const frame& in, handle data_dir, handle key_content);

} // namespace corvane::onboarding
