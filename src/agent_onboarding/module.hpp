// What the rooms of the module share: each function body, grouped by the file that holds it. Bodies reach one another
// through the module's namespace at call time, never through these declarations, so that a caller can replace any name.
#pragma once

#include "py/function.hpp"

namespace corvane::onboarding {

using namespace py; // NOLINT(google-build-using-namespace): the layer's vocabulary is this module's language

// from entry_points.cpp: registration, login, options, records
object exception_chain_detail(const frame& in);
object normalize_key(const frame& in);
object resolve_invite_code(const frame& in);
object resolve_optional_invite_code(const frame& in);
object register_wallet(const frame& in);
object login(const frame& in);
object configure(const frame& in);
/// The two records and the option table, created while the module is initialised.
object wallet_registration_class();
object auth_token_class();
object default_options();
object option_types();

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
