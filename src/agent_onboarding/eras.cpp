// The service's eras, and the one named universe that is active.
#include "module.hpp"

namespace corvane::onboarding {

namespace {

constexpr long timeout_seconds = 15; // of each socket operation

void append_unique(handle candidates, operand value) {
    global("_append_unique_named_universe"_n, value.at)(candidates, value);
}

/// `universe.get("named_universe") or universe.get("id") or universe.get("name")`: the first that is truthy decides; a
/// universe without any adds nothing.
void append_universe(handle candidates, handle universe) {
    if (!is_instance(universe, "dict"_n)) {
        append_unique(candidates, universe);
        return;
    }
    object stable_name = get(universe, "named_universe"_n);
    if (!is_true(stable_name)) {
        stable_name = get(universe, "id"_n);
        if (!is_true(stable_name))
            stable_name = get(universe, "name"_n);
    }
    if (is_true(stable_name))
        append_unique(candidates, stable_name);
}

/// The first usable name of a list, or of a single value; empty if there is none.
object first_usable(handle allowed) {
    if (!is_instance(allowed, "list"_n)) {
        object usable = global("_safe_named_universe"_n)(allowed);
        return is_true(usable) ? usable : object();
    }
    for (const object& value : iterate(allowed)) {
        object usable = global("_safe_named_universe"_n)(value);
        if (is_true(usable))
            return usable;
    }
    return {};
}

/// `str(era.get("state", "")).lower() == "active"`, for dicts
bool is_active(handle era) {
    if (!is_instance(era, "dict"_n))
        return false;
    callee text_form = global("str"_n);
    object state = text_form(get(era, "state"_n, ""_n));
    return compare(invoke(state, "lower"_n), Py_EQ, "active"_n);
}

/// The only element of a list; any other number of them is an error that counts them.
object only_one(operand list, handle message) {
    const location at = list.at;
    object count = global("len"_n, at)(list);
    if (compare(count, Py_NE, integer(1), at)) {
        callee runtime_error = global("RuntimeError"_n, at);
        raise(runtime_error(concat({message, at}, count, "."_n)), at);
    }
    return get_item(list, integer(0), at);
}

} // namespace

object fetch_eras_payload(const frame& in, handle am) {
    // Asked for at each call: the kit's manager renews a token that has expired.
    object token = invoke(am, "get_token"_n);
    if (!is_true(token))
        raise(global("RuntimeError"_n), "Registration bootstrap could not fetch /eras without an auth token."_n);
    // The address may have been set with or without a slash at its end.
    object base = invoke(get_item(global("_config"_n), "server_url"_n), "rstrip"_n, "/"_n);
    object url = add(base, "/eras"_n);
    callee request_class = global("urllib"_n).attr("request"_n).attr("Request"_n);
    object headers = new_dict();
    set_item(headers, "Authorization"_n, concat("Bearer "_n, token));
    object request = request_class(url, "headers"_a = headers, "method"_a = "GET"_n);

    // A response object of an installed opener may have no status, and may swallow an exception at its end; then a
    // variable below is unbound, as it would be in Python.
    object status;
    object body;
    try {
        callee open_url = global("urllib"_n).attr("request"_n).attr("urlopen"_n);
        with(in, open_url(request, "timeout"_a = integer(timeout_seconds)), [&](handle response) {
            status = global("getattr"_n)(response, "status"_n, integer(200));
            body = invoke(response, "read"_n);
        });
    } catch (error& caught) {
        except_scope handling(in, caught);
        // except (OSError, urllib.error.URLError, TimeoutError)
        object os_error = global("OSError"_n);
        object url_error = global("urllib"_n).attr("error"_n).attr("URLError"_n);
        if (!caught.matches(tuple(os_error, url_error, global("TimeoutError"_n))))
            raise_again(caught);
        object failure = global("RuntimeError"_n)("Registration bootstrap failed to fetch /eras."_n);
        raise_from(failure, caught.value());
    }
    // urlopen raises an error status, but an opener that somebody has installed may hand it over.
    if (compare(local(status, "status"), Py_NE, integer(200))) {
        callee runtime_error = global("RuntimeError"_n);
        raise(runtime_error(concat("Registration bootstrap failed to fetch /eras: HTTP "_n, status)));
    }
    object payload;
    try {
        // Decoded here: JSON between machines is UTF-8 (RFC 8259), whatever character set the header names.
        callee loads = global("json"_n).attr("loads"_n);
        payload = loads(invoke(local(body, "body"), "decode"_n, "utf-8"_n));
    } catch (error& caught) {
        except_scope handling(in, caught);
        // except (UnicodeDecodeError, json.JSONDecodeError)
        object decode_error = global("UnicodeDecodeError"_n);
        if (!caught.matches(tuple(decode_error, global("json"_n).attr("JSONDecodeError"_n))))
            raise_again(caught);
        object failure = global("RuntimeError"_n)("Registration bootstrap received invalid /eras JSON."_n);
        raise_from(failure, caught.value());
    }
    if (!is_instance(payload, "dict"_n))
        // A list or a text would only fail later, with an error that says nothing of the service.
        raise(global("RuntimeError"_n), "Registration bootstrap received invalid /eras payload."_n);
    return payload;
}

// The one rule for what a universe may be called: its name becomes a directory below the data directory.
object safe_named_universe(const frame&, handle value) {
    if (value.is_none())
        return none();
    // Numbers count in their text form: a service may call its universes 1 and 2.
    object text = is_instance(value, "str"_n) ? object::borrow(value) : global("str"_n)(value);
    text = invoke(text, "strip"_n);
    if (!is_true(text) || leaves_segment(text))
        return none();
    return text;
}

object append_unique_named_universe(const frame&, handle candidates, handle value) {
    object name = global("_safe_named_universe"_n)(value);
    // `not in` compares by value, so that one universe named twice stays one.
    if (is_true(name) && !contains(candidates, name))
        invoke(candidates, "append"_n, name);
    return none();
}

// The service sends a list, or the single value where there is only one.
object append_allowed_named_universes(const frame&, handle candidates, handle values) {
    if (is_instance(values, "list"_n)) {
        for (const object& value : iterate(values))
            append_unique(candidates, value);
    } else {
        append_unique(candidates, values);
    }
    return none();
}

// An era can mention its universes in four places. All are looked at, in this order.
object active_era_named_universe_candidates(const frame&, handle era) {
    object candidates = new_list();
    callee append_one = global("_append_unique_named_universe"_n);
    append_one(candidates, get(era, "named_universe"_n));
    callee append_allowed = global("_append_allowed_named_universes"_n);
    append_allowed(candidates, get(era, "allowed_named_universes"_n));

    object signal_pools = get(era, "signal_pools"_n);
    if (is_instance(signal_pools, "list"_n)) {
        for (const object& pool : iterate(signal_pools)) {
            if (!is_instance(pool, "dict"_n))
                continue;
            callee append_pool = global("_append_allowed_named_universes"_n);
            append_pool(candidates, get(pool, "allowed_named_universes"_n));
        }
    }
    object universes = get(era, "universes"_n);
    if (is_instance(universes, "list"_n)) {
        for (const object& universe : iterate(universes))
            append_universe(candidates, universe);
    } else if (is_instance(universes, "dict"_n)) {
        // The order of a JSON object says nothing; the first candidate must not depend on it.
        for (const object& key : iterate(global("sorted"_n)(universes)))
            append_unique(candidates, key);
    }
    return candidates;
}

// For a runtime from disk, where nobody can be asked which universe is meant: pools first, then the era itself.
object first_allowed_named_universe_from_era_config(const frame&, handle era_config) {
    if (!is_instance(era_config, "dict"_n))
        return none();
    object signal_pools = get(era_config, "signal_pools"_n);
    if (is_instance(signal_pools, "list"_n)) {
        for (const object& pool : iterate(signal_pools)) {
            if (!is_instance(pool, "dict"_n))
                continue;
            if (object usable = first_usable(get(pool, "allowed_named_universes"_n)))
                return usable;
        }
    }
    if (object usable = first_usable(get(era_config, "allowed_named_universes"_n)))
        return usable;
    // None is not a failure: a runtime can be built for an era that names no universe.
    callee safe = global("_safe_named_universe"_n);
    return safe(get(era_config, "named_universe"_n));
}

object resolve_active_named_universe(const frame&, handle am) {
    callee safe = global("_safe_named_universe"_n);
    object configured = safe(get(global("_config"_n), "named_universe"_n));
    // What the owner has configured is cleaned but not questioned, and the service is not asked.
    if (is_true(configured)) {
        set_item(global("_config"_n), "named_universe"_n, configured);
        return configured;
    }
    // Two active eras or two universes would be a choice that only the agent's owner can make.
    object payload = global("_fetch_eras_payload"_n)(am);
    object eras = get(payload, "eras"_n);
    if (!is_instance(eras, "list"_n))
        raise(global("RuntimeError"_n), "Registration bootstrap /eras payload is missing eras list."_n);
    // Entries that are not dicts are skipped: a later service may list other things beside eras.
    object active_eras = new_list();
    for (const object& era : iterate(eras)) {
        if (is_active(era))
            append(active_eras, era);
    }
    object active_era =
        only_one(active_eras, "Registration bootstrap expected exactly one active era from /eras, got "_n);
    object candidates = global("_active_era_named_universe_candidates"_n)(active_era);
    object chosen =
        only_one(candidates, "Registration bootstrap expected exactly one active named universe from /eras, got "_n);
    set_item(global("_config"_n), "named_universe"_n, chosen);
    return chosen;
}

} // namespace corvane::onboarding
