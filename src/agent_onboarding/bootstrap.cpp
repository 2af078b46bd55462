// From a signed-in wallet to a search runtime: the kit's own bootstrap, or else a local one from the files on disk, and
// the wiring of the result into the kit's search and simulation modules.
#include "module.hpp"

namespace corvane::onboarding {

namespace {

/// `raise RuntimeError(f"{message}: {detail}") from caught`, where the detail of the chain says something.
[[noreturn]] void raise_with_detail(const error& caught, operand message) {
    object detail = global("_exception_chain_detail"_n, message.at)(caught.value());
    if (is_true(detail, message.at))
        raise_for(caught, {concat(message, ": "_n, detail), message.at});
    raise_for(caught, message);
}

// -- The local runtime ----------------------------------------------------------------------------------------------

/// `_config.get(key)`
object configured(name key) { return get(global("_config"_n), key); }
/// `_config.get(key) or fallback`
object configured_or(name key, handle fallback) {
    object value = configured(key);
    return is_true(value) ? value : object::borrow(fallback);
}

object configured_data_dir() {
    callee real_path = global("os"_n).attr("path"_n).attr("realpath"_n);
    callee expand_user = global("os"_n).attr("path"_n).attr("expanduser"_n);
    return real_path(expand_user(configured_or("data_dir"_n, interned(node_of<default_data_dir>))));
}

/// The era's number: the configuration wins over the vocabulary.
object era_number(handle era_config, handle vocabulary) {
    callee int_type = global("int"_n);
    // int(era_config.get("era_id") or vocabulary.get("era_id") or 0)
    object number = invoke(era_config, "get"_n, "era_id"_n);
    if (!is_true(number)) {
        number = invoke(vocabulary, "get"_n, "era_id"_n);
        if (!is_true(number))
            number = integer(0);
    }
    return int_type(number);
}

object manifest_record(handle era_id, handle manifest_data, handle named_universe) {
    callee record = global("SimpleNamespace"_n);
    callee dict_type = global("dict"_n);
    object files = dict_type(global("_manifest_files"_n)(manifest_data));
    return record("era_id"_a = era_id, "files"_a = files, "named_universe"_a = named_universe);
}

/// `{key: value}`
object dict_of(handle key, handle value) {
    object made = new_dict();
    set_item(made, key, value);
    return made;
}

/// What a kit with batch evaluation adds to the evaluator; all None where it cannot be had.
struct batch_helpers {
    object orchestrator_class = none();
    object compute_search_plan = none();
    object expression_type_class = none();
    object expression_evaluator = none();
};

batch_helpers import_batch_helpers(const frame& in, handle kit) {
    try {
        object imported_four[4];
        unpack(kit.attr("_import_batch_runtime"_n)(), imported_four);
        auto& [orchestrator_class, compute_search_plan, expression_type_class, expression_evaluator] = imported_four;
        return {std::move(orchestrator_class), std::move(compute_search_plan), std::move(expression_type_class),
                std::move(expression_evaluator)};
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        warn("Batch runtime import failed during local bootstrap; continuing without batch orchestration helpers: %s"_n,
             caught);
        return {};
    }
}

/// The runtime is installed before its validator is built, and taken back if that fails.
void add_graph_validator(const frame& in, handle kit, handle evaluator, handle vocabulary, handle era_config) {
    try {
        callee build = kit.attr("_build_graph_validator"_n);
        set_attr(evaluator, "graph_validator"_n,
                 build(evaluator.attr("registry"_n), vocabulary, era_config, evaluator));
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        set_attr(kit, "_runtime"_n, none());
        raise_again(caught);
    }
}

// -- Propagation ----------------------------------------------------------------------------------------------------

/// The runtime from the files on disk, or None.
object local_runtime(const frame& in, handle am) {
    try {
        return global("_bootstrap_local_runtime_from_config"_n)(am);
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        global("logger"_n).attr("debug"_n)("Failed to bootstrap local corvane runtime: %s"_n, caught.value());
        return none();
    }
}

/// The kit's own bootstrap, which synchronises first; where it fails in tolerant mode, the files that are on disk.
object kit_or_local_runtime(const frame& in, handle am, handle strict) {
    object sync_backoff;
    try {
        sync_backoff = inner_statement("_propagate_auth.sync_backoff"_n);
        callee bootstrap = inner_statement("_propagate_auth._runtime"_n).attr("bootstrap_runtime"_n);
        object config = global("_config"_n);
        return bootstrap(am, config, global("_load_per_era_backtester"_n));
    } catch (error& caught) {
        except_scope handling(in, caught);
        if (!sync_backoff) { // the clause needs the very module whose import failed
            throw_error(PyExc_UnboundLocalError, "local variable 'sync_backoff' referenced before assignment");
        }
        if (caught.matches(sync_backoff.attr("SyncBackoffCancelled"_n)))
            raise_again(caught); // the agent is being stopped, which is not a failure to hide
        if (!caught.matches(global("Exception"_n)))
            raise_again(caught);
        warn("Failed to bootstrap corvane runtime: %s"_n, caught);
        if (is_true(strict))
            raise_with_detail(caught, "Corvane registration authenticated, but runtime data bootstrap failed"_n);
        return local_runtime(in, am);
    }
}

/// Gives the search templates the runtime, if there is one; `statement` imports them.
void inject_into_search(const frame& in, name statement, handle runtime, handle strict, name failure_text) {
    try {
        object search_templates = inner_statement(statement);
        if (!runtime.is_none())
            set_attr(search_templates, "_library_runtime"_n, runtime);
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        warn(failure_text, caught);
        if (is_true(strict))
            raise_for(caught, "Corvane search runtime injection failed."_n);
    }
}

/// The import of the module `corvane.simulate_signal` has put it where the package offers the function of that name.
void restore_export(const frame& in, handle simulation, handle strict) {
    try {
        object package = inner_statement("_propagate_auth.corvane"_n);
        set_attr(package, "simulate_signal"_n, simulation.attr("_simulate_signal_export"_n));
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        warn("Failed to restore top-level simulate exports: %s"_n, caught);
        if (is_true(strict))
            raise_for(caught, "Corvane simulate exports bootstrap failed."_n);
    }
}

void initialise_simulation(const frame& in, handle am, handle runtime, handle strict) {
    try {
        object simulation = global("importlib"_n).attr("import_module"_n)("corvane.simulate_signal"_n);
        if (runtime.is_none())
            raise(global("RuntimeError"_n), "private corvane runtime was not initialized"_n);
        callee initialise = simulation.attr("init_simulate_signal"_n);
        initialise({
            "auth"_a = am,
            "sync_manager"_a = runtime.attr("sync_manager"_n),
            "vault"_a = runtime.attr("vault"_n),
            "backtester"_a = runtime.attr("evaluator"_n),
            "search_tracker"_a = runtime.attr("search_tracker"_n),
            "era_thread"_a = runtime.attr("era_thread"_n),
            "graph_validator"_a = get_attribute(runtime.attr("evaluator"_n), "graph_validator"_n, none()),
            "compute_search_plan"_a = runtime.attr("evaluator"_n).attr("compute_search_plan"_n),
            "era_config"_a = runtime.attr("era_config"_n),
            "load_vocabulary"_a = runtime.attr("load_vocabulary"_n),
            "useful_signal_metadata"_a = get_attribute(runtime.attr("sync_manager"_n), "_vocabulary"_n, none()),
            "load_found_signal_pnl"_a = get_attribute(runtime.attr("evaluator"_n), "load_found_signal_pnl"_n, none()),
            "signal_dir"_a = runtime.attr("data_dir"_n),
            "BatchOrchestrator_cls"_a = runtime.attr("evaluator"_n).attr("make_batch_orchestrator_cls"_n)(),
            "correlate_per_pool"_a = runtime.attr("evaluator"_n).attr("correlate_per_pool"_n),
            "compute_mi_per_pool"_a = runtime.attr("evaluator"_n).attr("compute_mi_per_pool"_n),
            "vocabulary"_a = get_attribute(runtime, "registry"_n, none()),
            "vocabulary_raw"_a = runtime.attr("vocabulary_raw"_n),
            "runtime_freshness_guard"_a = runtime.attr("runtime_freshness_guard"_n),
        });
        restore_export(in, simulation, strict);
    } catch (error& caught) {
        except_scope handling(in, caught, "Exception"_n);
        warn("Failed to initialize simulate_signal: %s"_n, caught);
        if (is_true(strict))
            raise_with_detail(caught, "Corvane simulate_signal bootstrap failed"_n);
    }
}

} // namespace

// -- The local sync manager -----------------------------------------------------------------------------------------

// Stands in for the kit's manager: the runtime asks it for the manifest, and it has nothing to synchronise.
object sync_manager_init(const frame&, handle self, handle manifest, handle runtime_freshness_guard) {
    set_attr(self, "_manifest"_n, manifest);
    set_attr(self, "_vocabulary"_n, new_dict());
    set_attr(self, "runtime_freshness_guard"_n, runtime_freshness_guard);
    return none();
}
object sync_manager_get_manifest(const frame&, handle self) { return self.attr("_manifest"_n); }
object sync_manager_acquire(const frame&, handle /*self*/) { return none(); }
object sync_manager_release(const frame&, handle /*self*/) { return none(); }
object sync_manager_request_for_sync(const frame&, handle /*self*/) { return new_list(); }
object sync_manager_register_era_callback(const frame&, handle /*self*/, handle /*callback*/) { return none(); }
object sync_manager_unregister_era_callback(const frame&, handle /*self*/, handle /*callback*/) { return none(); }

object read_json_if_present(const frame& in, handle path) {
    if (!is_true(path) || !path_exists(path))
        return none();
    object value = none(); // also the result if the file swallows an exception
    with(in, global("open"_n)(path, "r"_n, "encoding"_a = "utf-8"_n),
         [&](handle file) { value = global("json"_n).attr("load"_n)(file); });
    return value;
}

// The universe's own vocabulary wins over the one of the data directory.
object local_vocabulary_path(const frame&, handle data_dir, handle named_universe) {
    object candidates = new_list();
    if (is_true(named_universe)) {
        object path =
            global("os"_n).attr("path"_n).attr("join"_n)(data_dir, "features"_n, named_universe, "vocabulary.json"_n);
        append(candidates, path);
    }
    object path = join_path(data_dir, "vocabulary.json"_n);
    append(candidates, path);
    for (const object& candidate : iterate(candidates)) {
        if (path_exists(candidate))
            return candidate;
    }
    return none();
}

object bootstrap_local_runtime_from_config(const frame& in, handle am) {
    object data_dir = configured_data_dir();
    object era_config = configured("era_config"_n);
    // Not a failure: without an era or a vocabulary there is nothing to build, and callers say so in their own words.
    if (!is_instance(era_config, "dict"_n))
        return none();
    object named_universe = configured("named_universe"_n);
    if (!is_true(named_universe))
        named_universe = global("_first_allowed_named_universe_from_era_config"_n)(era_config);
    callee read_vocabulary = global("_read_json_if_present"_n);
    object vocabulary = read_vocabulary(global("_local_vocabulary_path"_n)(data_dir, named_universe));
    if (!is_instance(vocabulary, "dict"_n))
        return none();

    // Only now: nothing else in this module needs the search runtime to be there.
    object kit = inner_statement("_bootstrap_local_runtime_from_config._runtime"_n);
    callee tracker_class = inner_statement("_bootstrap_local_runtime_from_config.SearchTracker"_n);
    object freshness_guard = global("create_runtime_freshness_guard"_n)(data_dir);
    object manifest_data = global("_read_manifest"_n)(data_dir);
    object manifest_path = join_path(data_dir, "manifest.json"_n);
    object manifest_payload = global("_read_json_if_present"_n)(manifest_path);
    if (!is_instance(manifest_payload, "dict"_n))
        manifest_payload = new_dict();

    // Everything is loaded and verified before the first object of a runtime is built.
    object loaded_modules = global("_load_runtime_modules_from_manifest"_n)(data_dir, manifest_data);
    object raw_backtester = invoke(loaded_modules, "get"_n, "backtester"_n);
    if (raw_backtester.is_none())
        raise_backtester_missing();
    if (is_true(get_attribute(raw_backtester, "_corvane_module_sha256"_n, none()))) {
        callee record = freshness_guard.attr("record_loaded_module"_n);
        record("backtester"_n, raw_backtester.attr("_corvane_module_sha256"_n), "module"_a = raw_backtester);
    }

    // What the runtime takes for a manifest: the era's number and the universe beside the files.
    object era_id = era_number(era_config, vocabulary);
    object manifest = manifest_record(era_id, manifest_data, named_universe);
    object sync_manager = global("_LocalRuntimeSyncManager"_n)(manifest, "runtime_freshness_guard"_a = freshness_guard);
    object vault_module = invoke(loaded_modules, "get"_n, "era_data"_n);
    if (vault_module.is_none())
        vault_module = kit.attr("_load_vault_module"_n)("vault_module"_a = none());
    era_config = kit.attr("_normalize_era_config"_n)(era_config, vocabulary, "manifest"_a = manifest_payload);
    object vault = kit.attr("_wrap_synced_vault"_n)(vault_module, "manifest"_a = manifest, "era_config"_a = era_config);
    object registry = kit.attr("_build_function_registry"_n)(vocabulary, "era_config"_a = era_config);
    const batch_helpers batch = import_batch_helpers(in, kit);
    object evaluator = kit.attr("RuntimeEvaluationAdapter"_n)({
        "data_dir"_a = data_dir,
        "era_config"_a = era_config,
        "raw_backtester"_a = raw_backtester,
        "vault"_a = vault,
        "manifest"_a = manifest,
        "graph_validator"_a = none(),
        "batch_orchestrator_cls"_a = batch.orchestrator_class,
        "compute_search_plan"_a = batch.compute_search_plan,
        "expression_type_cls"_a = batch.expression_type_class,
        "expression_evaluator"_a = batch.expression_evaluator,
        "registry"_a = registry,
        "raw_vocabulary"_a = vocabulary,
        "named_universe"_a = named_universe,
        "auth"_a = am,
        "runtime_freshness_guard"_a = freshness_guard,
    });
    // A reloaded backtester replaces the evaluator's, and below the runtime's.
    invoke(freshness_guard, "register_module_consumer"_n, "backtester"_n, evaluator, "raw_backtester"_n);

    object tracker = tracker_class(data_dir);
    object named_universes = tuple(named_universe);
    object features = global("os"_n).attr("path"_n).attr("join"_n)(data_dir, "features"_n, named_universe);
    object feature_dirs = dict_of(named_universe, features);
    object adapter = kit.attr("_RuntimeManifestAdapter"_n)(
        manifest, "feature_epoch"_a = "signal_is"_n, "named_universe"_a = named_universe, "era_config"_a = era_config);
    object manifest_adapters = dict_of(named_universe, adapter);
    object runtime = kit.attr("LibraryRuntime"_n)({
        "auth"_a = am,
        "auth_proxy"_a = am,
        "data_dir"_a = data_dir,
        "server_url"_a = configured_or("server_url"_n, interned(node_of<default_server_url>)),
        "sync_manager"_a = sync_manager,
        "era_id"_a = era_id,
        "era_thread"_a = kit.attr("_EraThreadProxy"_n)(sync_manager),
        "era_config"_a = era_config,
        "search_era_config"_a = kit.attr("_SearchEraConfig"_n)(era_config),
        "named_universes"_a = named_universes,
        "default_named_universe"_a = named_universe,
        "vocabularies"_a = dict_of(named_universe, vocabulary),
        "feature_dirs"_a = feature_dirs,
        "manifest_adapters"_a = manifest_adapters,
        "vocabulary_raw"_a = vocabulary,
        "registry"_a = evaluator.attr("registry"_n),
        "vault"_a = vault,
        "raw_backtester"_a = raw_backtester,
        "evaluator"_a = evaluator,
        "search_tracker"_a = tracker,
        "runtime_freshness_guard"_a = freshness_guard,
    });
    set_attr(kit, "_runtime"_n, runtime);
    add_graph_validator(in, kit, evaluator, vocabulary, era_config);
    invoke(freshness_guard, "register_module_consumer"_n, "backtester"_n, runtime, "raw_backtester"_n);
    return runtime;
}

object propagate_auth(const frame& in, handle am, handle strict) {
    activate(in, am, strict);
    object runtime = kit_or_local_runtime(in, am, strict);
    if (is_true(strict) && runtime.is_none())
        raise(global("RuntimeError"_n),
              "Corvane registration authenticated, but runtime data bootstrap returned no runtime."_n);
    inject_into_search(in, "_propagate_auth.search_templates"_n, runtime, strict,
                       "Failed to inject runtime into search_templates: %s"_n);
    initialise_simulation(in, am, runtime, strict);
    return runtime;
}

object ensure_runtime_bootstrapped(const frame& in, handle strict) {
    if (global("_auth_manager"_n).is_none()) {
        if (!is_true(strict))
            return none();
        raise(auth("AuthError"_n), "No wallet initialized. Call register() or login() first."_n);
    }
    // A runtime that is there is used again; only the search templates may have been imported since.
    object runtime = inner_statement("ensure_runtime_bootstrapped._runtime"_n).attr("get_runtime"_n)();
    if (!runtime.is_none()) {
        inject_into_search(in, "ensure_runtime_bootstrapped.search_templates"_n, runtime, strict,
                           "Failed to inject existing runtime into search_templates: %s"_n);
        return runtime;
    }
    global("_resolve_active_named_universe"_n)(global("_auth_manager"_n));
    return global("_propagate_auth"_n)(global("_auth_manager"_n), "strict"_a = strict);
}

} // namespace corvane::onboarding
