// The module's table of contents: every name in the order in which it is created, and the body behind each function.
// Signatures and help texts are in declarations.py. Later names may need earlier ones (annotations, records, options).
#include "module.hpp"

#include <atomic>
#include <cstdint>
#include <new>

namespace corvane::onboarding {

namespace {

constexpr const char* module_doc = "Agent onboarding subcomponent -- register, login, configure, heartbeat.";

constexpr unsigned char declarations[] = {
#include "declarations.inc"
};

/// The body of the module.
void populate() {
    set_global("__doc__"_n, detail::text_of(module_doc));
    define("imports");
    set_global("logger"_n, global("logging"_n).attr("getLogger"_n)("corvane.agent_onboarding"_n));
    define<exception_chain_detail>("_exception_chain_detail");

    // Runtime loading: copies, manifest, verified loading.
    define<sha256_file>("_sha256_file");
    define<content_addressed_extension_path>("_content_addressed_extension_path");
    define<prune_runtime_extension_copies>("_prune_runtime_extension_copies");
    define<load_extension_from_path>("_load_extension_from_path");

    define<read_manifest>("_read_manifest");
    define<manifest_files>("_manifest_files");
    define_generator("_runtime_module_manifest_entries", native<runtime_module>("runtime_module"),
                     native<sorted_files>("sorted_files"));
    define<select_runtime_module_manifest_entry>("_select_runtime_module_manifest_entry");

    define<load_manifest_runtime_module>("_load_manifest_runtime_module");
    define<load_runtime_modules_from_manifest>("_load_runtime_modules_from_manifest");
    define<create_runtime_freshness_guard>("create_runtime_freshness_guard");
    define<load_per_era_backtester>("_load_per_era_backtester");

    // Annotations of the functions below name the records.
    define("WalletRegistration");
    define("AuthToken", {native<auth_token_repr>("__repr__")});
    set_global("_HEARTBEAT_STATIC_SECTION"_n, heartbeat_static_section());
    set_global("_NUDGE_TEXTS"_n, nudge_texts());
    set_global("_AGENTS_MD_FRAGMENT"_n, agents_md_fragment());
    set_global("_config"_n, default_options());
    set_global("_auth_manager"_n, handle(Py_None));
    set_global("_VALID_OPTIONS"_n, option_types());

    // From here on functions find texts, options and state when they are called.
    define<find_heartbeat>("_find_heartbeat");
    define<fetch_eras_payload>("_fetch_eras_payload");
    define<safe_named_universe>("_safe_named_universe");
    define<append_unique_named_universe>("_append_unique_named_universe");
    define<append_allowed_named_universes>("_append_allowed_named_universes");
    define<active_era_named_universe_candidates>("_active_era_named_universe_candidates");
    define<first_allowed_named_universe_from_era_config>("_first_allowed_named_universe_from_era_config");
    define<resolve_active_named_universe>("_resolve_active_named_universe");

    define<canonical_data_dir>("_canonical_data_dir");
    define<wallet_key_path>("_wallet_key_path");
    define<unsafe_wallet_error>("_unsafe_wallet_error");
    define<check_wallet_fd>("_check_wallet_fd");
    define<read_wallet_key>("_read_wallet_key");
    define<write_wallet_key>("_write_wallet_key");

    define("_LocalRuntimeSyncManager",
           {native<sync_manager_init>("__init__"), native<sync_manager_get_manifest>("get_manifest"),
            native<sync_manager_acquire>("acquire"), native<sync_manager_release>("release"),
            native<sync_manager_request_for_sync>("request_for_sync"),
            native<sync_manager_register_era_callback>("register_era_callback"),
            native<sync_manager_unregister_era_callback>("unregister_era_callback")});
    define<read_json_if_present>("_read_json_if_present");
    define<local_vocabulary_path>("_local_vocabulary_path");
    define<bootstrap_local_runtime_from_config>("_bootstrap_local_runtime_from_config");
    define<propagate_auth>("_propagate_auth");

    define<normalize_key>("_normalize_key");
    define<resolve_invite_code>("_resolve_invite_code");
    define<resolve_optional_invite_code>("_resolve_optional_invite_code");
    define<register_wallet>("register");
    define<login>("login");
    define<configure>("configure");
    define<ensure_runtime_bootstrapped>("ensure_runtime_bootstrapped");
    define<inject_heartbeat>("inject_heartbeat");
    define<update_nudge>("update_nudge");
    define<get_agents_md_fragment>("get_agents_md_fragment");
}

// -- Initialisation -------------------------------------------------------------------------------------------------
//
// The module's state is one per process: one interpreter gets it, once. The finished module is kept in that
// interpreter's own dictionary and handed out again for every later import, so it is never populated twice. A failed
// import leaves nothing behind, and the next one, also in another interpreter, starts clean.

constexpr std::int64_t nobody = -1;
std::atomic<std::int64_t> owning_interpreter = nobody;
bool populating = false; // guarded by the lock of the interpreter that owns the module

object kept_as() { return check(PyUnicode_FromString("corvane.agent_onboarding")); }

handle interpreter_dict() {
    PyObject* dictionary = PyInterpreterState_GetDict(PyInterpreterState_Get());
    if (dictionary == nullptr) { // it is made at first use, and the interpreter keeps quiet about why it was not
        PyErr_NoMemory();
        throw_error();
    }
    return handle(dictionary);
}

/// The module that an earlier import finished, or empty.
object kept_module() { return find(interpreter_dict(), kept_as()); }

/// One attempt to populate the module; undone unless it is said to be finished.
class initialisation {
  public:
    initialisation() {
        if (populating)
            throw_error(PyExc_ImportError, "corvane.agent_onboarding is being initialised already");
        populating = true;
    }
    ~initialisation() {
        populating = false;
        if (finished_)
            return;
        stop();
        owning_interpreter = nobody;
    }
    initialisation(const initialisation&) = delete;
    initialisation& operator=(const initialisation&) = delete;
    void finished() noexcept { finished_ = true; }

  private:
    bool finished_ = false;
};

/// Runs what can throw, as a slot of the module.
template <typename Result, typename Slot> Result slot(Result failed, Slot run) {
    try {
        return run();
    } catch (error& raised) {
        frame().trace(raised);
        raised.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    return failed;
}

[[noreturn]] void refuse_another_interpreter() {
    throw_error(PyExc_ImportError, "corvane.agent_onboarding can be loaded into only one interpreter per process");
}

PyObject* create(PyObject* spec, PyModuleDef*) {
    return slot<PyObject*>(nullptr, [spec] {
        if (object finished = kept_module())
            return finished.release();
        object name = check(foreign_call(PyObject_GetAttrString, spec, "name"));
        object made = check(PyModule_NewObject(name.ptr()));
        const std::int64_t interpreter = PyInterpreterState_GetID(PyInterpreterState_Get());
        const std::int64_t owner = owning_interpreter;
        if (owner != nobody && owner != interpreter)
            refuse_another_interpreter();
        return made.release();
    });
}

int execute(PyObject* module) {
    return slot<int>(-1, [module] {
        object finished = kept_module();
        if (finished.is(handle(module)))
            return 0;
        if (finished)
            throw_error(PyExc_ImportError, "corvane.agent_onboarding is already initialised");
        // Only now: a module that was made and never executed must not keep the others out.
        std::int64_t owner = nobody;
        const std::int64_t interpreter = PyInterpreterState_GetID(PyInterpreterState_Get());
        if (!owning_interpreter.compare_exchange_strong(owner, interpreter) && owner != interpreter)
            refuse_another_interpreter();
        initialisation attempt;
        start(handle(PyModule_GetDict(module)), declarations);
        populate();
        set_item(interpreter_dict(), kept_as(), handle(module));
        attempt.finished();
        return 0;
    });
}

PyModuleDef_Slot slots[] = {
    {Py_mod_create, reinterpret_cast<void*>(create)},
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    // Not true of us, but without it an isolated interpreter is refused with a text of its own instead of ours.
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

// No m_doc: re-import would overwrite a `__doc__` that somebody changed. No m_size: the state is not the module's.
PyModuleDef definition = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "agent_onboarding",
    .m_doc = nullptr,
    .m_size = 0,
    .m_methods = nullptr,
    .m_slots = slots,
    .m_traverse = nullptr,
    .m_clear = nullptr,
    .m_free = nullptr,
};

} // namespace

} // namespace corvane::onboarding

PyMODINIT_FUNC PyInit_agent_onboarding() { return PyModuleDef_Init(&corvane::onboarding::definition); }
