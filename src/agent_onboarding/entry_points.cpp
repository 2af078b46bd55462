// What an agent calls first: register, login, configure; and the records and options that go with them.
#include "module.hpp"

namespace corvane::onboarding {

namespace {

// The detail of a failure is one line of a message, which must stay readable.
constexpr int links_described = 4;
constexpr long key_bytes = 32; // a new key's, drawn from the operating system

name unreachable() { return "Cannot reach Corvane server. Check your network connection and try again."_n; }
name invalid_key() { return "Invalid private key format. Expected hex string (64 characters) or 32 bytes."_n; }

/// `_config["data_dir"] = canonical`, so that every later call of the process uses it; then the directory itself.
void adopt_data_dir(handle canonical) {
    set_item(global("_config"_n), "data_dir"_n, canonical);
    global("os"_n).attr("makedirs"_n)(canonical, "exist_ok"_a = true_value());
}

/// Signs the wallet up, or in again; service errors become the messages an agent can act on. The original stays behind
/// them as their context.
object authenticate_for_register(const frame& in, handle key, handle invite_code) {
    try {
        callee manager_class = auth("AuthManager"_n);
        object server_url = get_item(global("_config"_n), "server_url"_n);
        object manager = manager_class(key, server_url, "invite_code"_a = invite_code);
        invoke(manager, "authenticate"_n);
        return manager;
    } catch (error& caught) {
        except_scope handling(in, caught);
        if (caught.matches(global("ConnectionError"_n)))
            raise(global("ConnectionError"_n), unreachable());
        if (caught.matches(auth("RegistrationError"_n))) {
            callee registration_error = auth("RegistrationError"_n);
            object reason = global("str"_n)(caught.value());
            object message = add(add("Registration failed: "_n, reason), ". Contact support if this persists."_n);
            raise(registration_error(message));
        }
        if (caught.matches(auth("InvalidKeyError"_n)))
            raise(global("ValueError"_n), invalid_key());
        raise_again(caught);
    }
}

/// As above; but here a refusal can only mean the key, and an invalid key is told apart before the network is blamed.
object authenticate_for_login(const frame& in, handle key) {
    try {
        callee manager_class = auth("AuthManager"_n);
        object server_url = get_item(global("_config"_n), "server_url"_n);
        object manager = manager_class(key, server_url);
        invoke(manager, "authenticate"_n);
        return manager;
    } catch (error& caught) {
        except_scope handling(in, caught);
        if (caught.matches(auth("InvalidKeyError"_n)))
            raise(global("ValueError"_n), invalid_key());
        if (caught.matches(global("ConnectionError"_n)))
            raise(global("ConnectionError"_n), unreachable());
        if (caught.matches(auth("AuthError"_n)))
            raise(auth("AuthError"_n), "Authentication failed. Verify your private key is correct."_n);
        raise_again(caught);
    }
}

/// A named universe later becomes a directory under the data directory, so it must be one path segment.
object checked_named_universe(handle value) {
    object name = invoke(value, "strip"_n);
    if (!is_true(name))
        raise(global("ValueError"_n), "named_universe cannot be empty."_n);
    if (leaves_segment(name))
        raise(global("ValueError"_n), "named_universe must be a single safe path segment."_n);
    return name;
}

} // namespace

object exception_chain_detail(const frame&, handle exc) {
    object details = new_list();
    object visited = new_dict(); // by identity; keeps each link alive, so no identity recurs
    object current = object::borrow(exc);
    while (!current.is_none() && PyList_GET_SIZE(details.ptr()) < links_described) {
        check_signals();
        object identity = check(PyLong_FromVoidPtr(current.ptr()));
        if (contains(visited, identity))
            break; // a chain that bites its own tail
        set_item(visited, identity, current);

        // f"{type(current).__name__}: {text}; diagnostic: {diagnostic}", each part only where there is something to say
        object text = invoke(global("str"_n)(current), "strip"_n);
        object item = global("type"_n)(current).attr("__name__"_n);
        if (is_true(text))
            item = concat(item, ": "_n, text);
        object diagnostic = get_attribute(current, "diagnostic_detail"_n, none());
        if (is_true(diagnostic))
            item = concat(item, "; diagnostic: "_n, diagnostic);
        // A repeated link is dropped, but the walk goes on below it.
        if (!contains(details, item))
            append(details, item);
        // Explicit causes alone: an implicit context often has nothing to do with the failure.
        current = get_attribute(current, "__cause__"_n, none());
    }
    return invoke("; caused by "_n, "join"_n, details);
}

// Nothing else is normalised: the service's module judges what a key is.
object normalize_key(const frame&, handle raw_key) {
    if (is_true(invoke(raw_key, "startswith"_n, "0x"_n)) || is_true(invoke(raw_key, "startswith"_n, "0X"_n)))
        return object::borrow(raw_key);
    return add("0x"_n, raw_key);
}

object resolve_invite_code(const frame&, handle invite_code) {
    object code = object::borrow(invite_code);
    // Only for None: an empty code that a caller passed is refused, and not replaced behind the caller's back.
    if (code.is_none())
        code = invoke(global("os"_n).attr("environ"_n), "get"_n, "CORVANE_INVITE_CODE"_n);
    object canonical = auth("_normalize_invite_code"_n)(code);
    if (canonical.is_none())
        raise(global("ValueError"_n), "Invite code required. Pass --invite-code, set CORVANE_INVITE_CODE, or "
                                      "call register(invite_code=...)."_n);
    return canonical;
}

object resolve_optional_invite_code(const frame&, handle invite_code) {
    return auth("_normalize_invite_code"_n)(invite_code);
}

object register_wallet(const frame& in, handle invite_code, handle data_dir, handle bootstrap_runtime) {
    // The directory is set before anything can fail, so that the next call, without arguments, finds the key there.
    object selected = object::borrow(data_dir);
    if (selected.is_none())
        selected = get_item(global("_config"_n), "data_dir"_n);
    object canonical = global("_canonical_data_dir"_n)(selected);
    adopt_data_dir(canonical);

    object code;
    object private_key = global("_read_wallet_key"_n)(canonical);
    if (private_key.is_none()) {
        code = global("_resolve_invite_code"_n)(invite_code);
        private_key = global("secrets"_n).attr("token_hex"_n)(integer(key_bytes));
        // Before the service sees the key, so that no accepted wallet is ever without its key on disk.
        global("_write_wallet_key"_n)(canonical, private_key);
    } else {
        // The wallet is known already, so a code is not needed, and the environment is not asked for one.
        code = global("_resolve_optional_invite_code"_n)(invite_code);
    }
    // The stored text stays as it is; only the service's module wants the prefix.
    object key_for_auth = global("_normalize_key"_n)(private_key);
    object manager = authenticate_for_register(in, key_for_auth, code);
    // Accepted: what follows can fail, but the wallet stays signed in.
    set_global("_auth_manager"_n, manager);
    if (is_true(bootstrap_runtime)) {
        global("_resolve_active_named_universe"_n)(manager);
        global("_propagate_auth"_n)(manager, "strict"_a = true_value());
    }
    activate(in, manager, handle(Py_False));
    // The address as the service has it, not as a computation of our own would write it.
    object address = invoke(manager, "get_wallet_address"_n);
    if (is_true(get(global("_config"_n), "auto_heartbeat"_n, true_value())))
        global("inject_heartbeat"_n)();
    return global("WalletRegistration"_n)("address"_a = address);
}

object login(const frame& in, handle private_key, handle bootstrap_runtime) {
    // Before anything is written: there is no key to adopt.
    if (private_key.is_none())
        raise(global("ValueError"_n), invalid_key());
    callee canonical_data_dir = global("_canonical_data_dir"_n);
    object data_dir = canonical_data_dir(get_item(global("_config"_n), "data_dir"_n));
    adopt_data_dir(data_dir);
    // Stored before the service sees it, as in register(): a wallet that signs in has its key on disk.
    global("_write_wallet_key"_n)(data_dir, private_key);
    object key_for_auth = global("_normalize_key"_n)(private_key);
    object manager = authenticate_for_login(in, key_for_auth);
    set_global("_auth_manager"_n, manager);
    if (is_true(bootstrap_runtime))
        global("_propagate_auth"_n)(manager, "strict"_a = true_value());
    activate(in, manager, handle(Py_False));
    callee auth_token = global("AuthToken"_n);
    object token = invoke(manager, "get_token"_n);
    object expires_at = invoke(manager, "get_token_expiry"_n);
    return auth_token("token"_a = token, "expires_at"_a = expires_at);
}

// for key, value in kwargs.items(), without the view and its iterator, which take as long as the rest of a call.
object configure(const frame&, handle kwargs) {
    const Py_ssize_t size = check(PyDict_Size(kwargs.ptr()));
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    for (Py_ssize_t position = 0; PyDict_Next(kwargs.ptr(), &position, &key, &value) != 0;) {
        // Owned before anything else runs: a signal handler can find the dict, and empty it.
        object option = object::borrow(key);
        object setting = object::borrow(value);
        check_signals();
        // Names are looked up in every round, as a loop in Python does: what a callback replaces counts at once.
        if (!contains(global("_VALID_OPTIONS"_n), option)) {
            object names = global("sorted"_n)(global("_VALID_OPTIONS"_n));
            object valid = invoke(", "_n, "join"_n, names);
            callee value_error = global("ValueError"_n);
            raise(value_error(concat("Unknown configuration option: '"_n, option, "'. Valid options: "_n, valid)));
        }
        object expected = get_item(global("_VALID_OPTIONS"_n), option);
        // A subclass passes; an int does not pass for a bool.
        if (!is_true(global("isinstance"_n)(setting, expected))) {
            callee value_error = global("ValueError"_n);
            object expected_name = expected.attr("__name__"_n);
            object given_name = global("type"_n)(setting).attr("__name__"_n);
            raise(value_error(
                concat("Option '"_n, option, "' expects "_n, expected_name, ", got "_n, given_name, "."_n)));
        }
        // The other options may be empty; the service's address and the universe are cleaned as well.
        if (compare(option, Py_EQ, "data_dir"_n) && compare(setting, Py_EQ, ""_n))
            raise(global("ValueError"_n), "data_dir cannot be empty."_n);
        if (compare(option, Py_EQ, "server_url"_n))
            setting = auth("_validate_server_url"_n)(setting);
        if (compare(option, Py_EQ, "named_universe"_n))
            setting = checked_named_universe(setting);
        set_item(global("_config"_n), option, setting);
        check_size(kwargs, size);
    }
    return none();
}

/// `token` never shows in the representation, however the record is printed.
object auth_token_repr(const frame&, handle self) {
    object expiry = global("repr"_n)(self.attr("expires_at"_n));
    return concat("AuthToken(token='<redacted>', expires_at="_n, expiry, ")"_n);
}

// Options that the kit adds later, such as the era's configuration, are not the caller's to set and have no entry.
object default_options() {
    object options = new_dict();
    set_item(options, "auto_heartbeat"_n, true_value());
    set_item(options, "data_dir"_n, interned(node_of<default_data_dir>));
    set_item(options, "server_url"_n, interned(node_of<default_server_url>));
    set_item(options, "named_universe"_n, ""_n);
    return options;
}

object option_types() {
    object types = new_dict();
    set_item(types, "auto_heartbeat"_n, global("bool"_n));
    set_item(types, "data_dir"_n, global("str"_n));
    set_item(types, "server_url"_n, global("str"_n));
    set_item(types, "named_universe"_n, global("str"_n));
    return types;
}

} // namespace corvane::onboarding
