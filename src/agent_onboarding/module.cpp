// The module from the outside: every name in the order in which it is created, and what help() says of it.
// The order is the one of the kit's sources; later names may need earlier ones (annotations, records, options).
#include "module.hpp"

#include <atomic>
#include <cstdint>
#include <new>
#include <span>

namespace corvane::onboarding {

namespace {

constexpr const char* module_doc = "Agent onboarding subcomponent -- register, login, configure, heartbeat.";

constexpr const char* imports = R"(import importlib
import importlib.util
import hashlib
import json
import logging
import os
import secrets
import shutil
import stat as _stat
import sys
import urllib.error
import urllib.request
from dataclasses import dataclass, field
from types import SimpleNamespace
from typing import List, Optional
from corvane import auth
from corvane.errors import RuntimeModuleDownloadIncomplete, RuntimeModuleHashMismatch, RuntimeModuleReloadFailed
from corvane.runtime_module_freshness import RuntimeFreshnessGuard, is_runtime_module_kind, runtime_module_name_from_kind
from corvane.skills import list_skills
from corvane.sync import CURRENT_PLATFORM
)";

constexpr native_function describe_errors[] = {
    native<exception_chain_detail>("_exception_chain_detail(exc)",
                                   "An exception and up to three of its explicit causes on one line of text."),
};

constexpr native_function workspace[] = {
    native<find_heartbeat>("_find_heartbeat(working_dir=None)",
                           "Search for HEARTBEAT.md in cwd + up to 3 parent directories.\n\n"
                           "    Returns the path to HEARTBEAT.md if found, None otherwise.\n"),
};

constexpr native_function wallet_store[] = {
    native<canonical_data_dir>("_canonical_data_dir(data_dir)",
                               "The data directory with the home directory expanded and every symbolic link resolved."),
    native<wallet_key_path>("_wallet_key_path(data_dir)", "The path of wallet.key in the canonical data directory."),
    native<unsafe_wallet_error>("_unsafe_wallet_error(wallet_path)",
                                "The IOError, not raised, that refuses a key file."),
    native<check_wallet_fd>("_check_wallet_fd(wallet_path, fd)",
                            "Refuses an open key file of another type or owner; tightens its permission bits to 0600."),
    native<read_wallet_key>("_read_wallet_key(data_dir)", "The stored key, or None when there is no key file."),
    native<write_wallet_key>("_write_wallet_key(data_dir, key_content)", "Stores the key with permission bits 0600."),
};

constexpr native_function key_and_invite_rules[] = {
    native<normalize_key>("_normalize_key(raw_key)", "The key with 0x in front."),
    native<resolve_invite_code>(
        "_resolve_invite_code(invite_code)",
        "The canonical invite code, from the argument or CORVANE_INVITE_CODE; ValueError without one."),
    native<resolve_optional_invite_code>("_resolve_optional_invite_code(invite_code)",
                                         "The canonical invite code, or None."),
};

constexpr native_function public_functions[] = {
    native<register_wallet>(
        "register(invite_code: Optional[str] = None, data_dir: Optional[str] = None, bootstrap_runtime: bool = False)"
        " -> WalletRegistration",
        "Create this agent's wallet and sign it up, or sign in again with the wallet already stored.\n\n"
        "The private key is kept in the file wallet.key of the data directory (owner-only, mode 0600). A new key is 32\n"
        "random bytes from the operating system, stored as 64 hexadecimal digits before the service sees it; keep a\n"
        "backup of the file, for nothing else can restore the wallet. The directory becomes the option data_dir of this\n"
        "process. Afterwards the monitoring checklist is added to HEARTBEAT.md unless the option auto_heartbeat is off.\n\n"
        "Args:\n"
        "    invite_code: Invite code for a new wallet. None takes the environment variable CORVANE_INVITE_CODE. Not\n"
        "        needed when the directory already holds a wallet.\n"
        "    data_dir: Directory of the wallet and the runtime files, created if missing. None takes the option\n"
        "        data_dir, \"~/.corvane/\" by default.\n"
        "    bootstrap_runtime: Whether to build the local search runtime as well.\n\n"
        "Returns:\n"
        "    The wallet's address, as the service knows it.\n\n"
        "Raises:\n"
        "    ValueError: There is no invite code for a new wallet, or the service rejects the stored key's format.\n"
        "    OSError: The key file is a link, not a regular file, or somebody else's; or it cannot be read or written.\n"
        "    ConnectionError: The service cannot be reached. A new key stays on disk; call again.\n"
        "    corvane.auth.RegistrationError: The service refuses the sign-up.\n"
        "    RuntimeError: The runtime cannot be built (only with bootstrap_runtime).\n",
        "register(invite_code: Optional[str] = None, data_dir: Optional[str] = None, bootstrap_runtime: bool = False)"
        " -> corvane.agent_onboarding.WalletRegistration"),
    native<login>(
        "login(private_key: str, bootstrap_runtime: bool = False) -> AuthToken",
        "Adopt a private key that the caller holds, and sign in with it.\n\n"
        "The key replaces the one in wallet.key of the data directory before the service has accepted it: keep a backup\n"
        "of another wallet's file first. The result holds a secret, so this function is no tool for a language model.\n\n"
        "Args:\n"
        "    private_key: The key as hexadecimal text of 32 bytes, with or without 0x in front; stored as given.\n"
        "    bootstrap_runtime: Whether to build the local search runtime as well.\n\n"
        "Returns:\n"
        "    The service's token and its expiry in seconds since 1970-01-01 UTC.\n\n"
        "Raises:\n"
        "    ValueError: The key is None or the service rejects its format.\n"
        "    OSError: The key file is a link, not a regular file, or somebody else's; or it cannot be written.\n"
        "    ConnectionError: The service cannot be reached.\n"
        "    corvane.auth.AuthError: The service refuses the key.\n"
        "    RuntimeError: The runtime cannot be built (only with bootstrap_runtime).\n",
        "login(private_key: str, bootstrap_runtime: bool = False) -> corvane.agent_onboarding.AuthToken"),
    native<configure>(
        "configure(**kwargs: object) -> None",
        "Set options of this process, one at a time in the order given.\n\n"
        "When an option is refused, those before it in the same call are already set.\n\n"
        "Args:\n"
        "    **kwargs: auto_heartbeat (bool, True by default): whether HEARTBEAT.md may be edited. data_dir (str,\n"
        "        \"~/.corvane/\"): directory of the wallet and the runtime files. server_url (str): base address of the\n"
        "        service; https, or http on this machine. named_universe (str): universe to search in, one path segment.\n\n"
        "Raises:\n"
        "    ValueError: The option is unknown, its value has another type, or the value is not acceptable.\n"),
    native<inject_heartbeat>("inject_heartbeat(working_dir: Optional[str] = None) -> None",
                             "Called by register() and search_templates during search startup.\n\n"
                             "    Searches cwd + up to 3 parents for HEARTBEAT.md and appends the\n"
                             "    Corvane checklist section if not already present.\n"
                             "    Respects auto_heartbeat=False opt-out.\n",
                             "inject_heartbeat(working_dir: str = None) -> None"),
    native<update_nudge>("update_nudge(trigger: str, **context: object) -> None",
                         "Called by search_templates when nudge trigger conditions are met.\n\n"
                         "    trigger: one of 'discovery_rate_declining', 'era_change', 'first_signal',\n"
                         "             '10_signals', 'strategy_unlock'\n",
                         "update_nudge(trigger: str, **context) -> None"),
    native<get_agents_md_fragment>("get_agents_md_fragment() -> str",
                                   "Returns ready-made AGENTS.md fragment for OpenClaw workspace setup."),
};

void define_all(std::span<const native_function> functions) {
    for (const native_function& function : functions)
        define(function);
}

/// The body of the module.
void populate() {
    set_global("__doc__"_n, concat(module_doc));
    run(imports);
    set_global("logger"_n, global("logging"_n).attr("getLogger"_n)("corvane.agent_onboarding"_n));
    define_all(describe_errors);

    set_global("WalletRegistration"_n, wallet_registration_class());
    set_global("AuthToken"_n, auth_token_class());
    set_global("_HEARTBEAT_STATIC_SECTION"_n, heartbeat_static_section());
    set_global("_NUDGE_TEXTS"_n, nudge_texts());
    set_global("_AGENTS_MD_FRAGMENT"_n, agents_md_fragment());
    set_global("_config"_n, default_options());
    set_global("_auth_manager"_n, handle(Py_None));
    set_global("_VALID_OPTIONS"_n, option_types());

    define_all(workspace);
    define_all(wallet_store);
    define_all(key_and_invite_rules);
    define_all(public_functions);
}

// -- Initialisation -------------------------------------------------------------------------------------------------
//
// The module's state is one per process: one interpreter gets it, once. The finished module is kept in that
// interpreter's own dictionary and handed out again for every later import, so exec never runs twice.

constexpr std::int64_t nobody = -1;
std::atomic<std::int64_t> owning_interpreter = nobody;
constexpr const char* kept_as = "corvane.agent_onboarding";

/// The module that an earlier import finished, or nullptr; borrowed.
PyObject* kept_module() {
    PyObject* interpreter_dict = PyInterpreterState_GetDict(PyInterpreterState_Get());
    return interpreter_dict == nullptr ? nullptr : PyDict_GetItemString(interpreter_dict, kept_as);
}

PyObject* create(PyObject* spec, PyModuleDef*) {
    const std::int64_t interpreter = PyInterpreterState_GetID(PyInterpreterState_Get());
    std::int64_t owner = nobody;
    if (!owning_interpreter.compare_exchange_strong(owner, interpreter) && owner != interpreter) {
        PyErr_SetString(PyExc_ImportError,
                        "corvane.agent_onboarding can be loaded into only one interpreter per process");
        return nullptr;
    }
    if (PyObject* finished = kept_module())
        return Py_NewRef(finished);
    PyObject* name = PyObject_GetAttrString(spec, "name");
    PyObject* made = name == nullptr ? nullptr : PyModule_NewObject(name);
    Py_XDECREF(name);
    return made;
}

int execute(PyObject* module) {
    PyObject* finished = kept_module();
    if (finished == module)
        return 0;
    const frame running(handle(PyModule_GetDict(module)));
    try {
        if (finished != nullptr)
            throw_error(PyExc_ImportError, "corvane.agent_onboarding is already initialised", where::current());
        start(handle(PyModule_GetDict(module)));
        populate();
        PyObject* interpreter_dict = PyInterpreterState_GetDict(PyInterpreterState_Get());
        check(PyDict_SetItemString(interpreter_dict, kept_as, module), where::current());
        return 0;
    } catch (error& raised) {
        running.trace(raised);
        raised.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    return -1;
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
