"""The module once more, as plain Python: what the native functions must be indistinguishable from."""

import types

from corvane import agent_onboarding as native

# What it imports, its texts and its sync manager are the native module's; the scenarios say what that one must be.
for name in [name for name in vars(native) if not name.startswith("__")]:
    if not isinstance(vars(native)[name], types.FunctionType) or vars(native)[name].__module__ != native.__name__:
        globals()[name] = vars(native)[name]

_config = dict(native._config)
_VALID_OPTIONS = {"auto_heartbeat": bool, "data_dir": str, "server_url": str, "named_universe": str}
_DEFAULT = "~/.corvane/"
_UNREACHABLE = "Cannot reach Corvane server. Check your network connection and try again."
_NO_BACKTESTER = "Per-era backtester runtime is missing from manifest."
_REFUSING = "Refusing to use wallet.key with unsafe ownership, type, or permissions."
_INVALID = "Invalid private key format. Expected hex string (64 characters) or 32 bytes."


def _exception_chain_detail(exc):
    details, seen, current = [], {}, exc
    while current is not None and len(details) < 4 and id(current) not in seen:
        seen[id(current)] = current
        text = str(current).strip()
        item = f"{type(current).__name__}: {text}" if text else type(current).__name__
        if diagnostic := getattr(current, "diagnostic_detail", None):
            item = f"{item}; diagnostic: {diagnostic}"
        if item not in details:
            details.append(item)
        current = getattr(current, "__cause__", None)
    return "; caused by ".join(details)


def _sha256_file(path):
    digest = hashlib.sha256()
    with open(path, "rb") as f:
        while chunk := f.read(1024 * 1024):
            digest.update(chunk)
    return digest.hexdigest()


def _content_addressed_extension_path(module_name, path, digest):
    root = os.path.dirname(os.path.realpath(path))
    runtime_path = os.path.join(root, f".corvane-runtime-{module_name!s}-{digest[:16]!s}.so")
    if os.path.exists(runtime_path):
        return runtime_path
    try:
        os.link(path, runtime_path)
    except OSError:
        shutil.copy2(path, runtime_path)
    return runtime_path


def _prune_runtime_extension_copies(module_name, keep_path, *, max_copies=2):
    root = os.path.dirname(os.path.realpath(keep_path))
    prefix = f".corvane-runtime-{module_name!s}-"
    keep_real = os.path.realpath(keep_path)
    candidates = []
    try:
        names = os.listdir(root)
    except OSError:
        return
    for name in names:
        if name.startswith(prefix) and name.endswith(".so"):
            path = os.path.join(root, name)
            try:
                candidates.append((os.stat(path).st_mtime_ns, path))
            except OSError:
                continue
    if len(candidates) <= max_copies:
        return
    keep = {keep_real}
    for candidate in sorted(candidates, key=lambda item: item[0], reverse=True):
        if len(keep) >= max_copies:
            break
        keep.add(os.path.realpath(candidate[1]))
    for candidate in candidates:
        if os.path.realpath(candidate[1]) not in keep:
            try:
                os.unlink(candidate[1])
            except OSError:
                pass


def _load_extension_from_path(module_name, path):
    digest = _sha256_file(path)
    runtime_path = _content_addressed_extension_path(module_name, path, digest)
    previous = sys.modules.get(module_name)
    if previous is not None and getattr(previous, "__file__", None) == runtime_path:
        if getattr(previous, "_corvane_module_sha256", None) == digest:
            return previous
    spec = importlib.util.spec_from_file_location(module_name, runtime_path)
    if spec is None or spec.loader is None:
        raise RuntimeError(f"Could not create import spec for {runtime_path!s}")
    module = importlib.util.module_from_spec(spec)
    sys.modules[module_name] = module
    try:
        spec.loader.exec_module(module)
        module._corvane_module_sha256 = digest
        module._corvane_module_source_path = os.path.realpath(path)
        _prune_runtime_extension_copies(module_name, runtime_path)
    except Exception:
        if sys.modules.get(module_name) is module:
            if previous is not None:
                sys.modules[module_name] = previous
            else:
                sys.modules.pop(module_name, None)
        raise
    return module


def _read_manifest(data_dir):
    path = os.path.join(data_dir, "manifest.json")
    if not os.path.exists(path):
        missing = f"Runtime manifest is missing at {path!s}."
        raise RuntimeModuleDownloadIncomplete(missing, relative_path="manifest.json")
    with open(path, "r", encoding="utf-8") as f:
        data = json.load(f)
    return SimpleNamespace(era_id=data.get("era_id"), version=data.get("version"), files=data.get("files", {}))


def _manifest_files(manifest):
    if manifest is None:
        return {}
    files = manifest.get("files", {}) if isinstance(manifest, dict) else getattr(manifest, "files", {})
    return files if isinstance(files, dict) else {}


def _runtime_module_manifest_entries(manifest):
    for relative_path, file_info in sorted(_manifest_files(manifest).items()):
        if not isinstance(file_info, dict):
            continue
        kind = str(file_info.get("kind", ""))
        if not is_runtime_module_kind(kind):
            continue
        platform = file_info.get("platform")
        if platform and platform != CURRENT_PLATFORM:
            continue
        if module_name := runtime_module_name_from_kind(kind):
            yield module_name, relative_path, file_info


def _select_runtime_module_manifest_entry(manifest, module_name):
    aliases = {module_name} | ({"vault"} if module_name == "era_data" else set())
    for candidate_name, relative_path, file_info in _runtime_module_manifest_entries(manifest):
        if candidate_name in aliases:
            return relative_path, file_info
    return None, None


def _load_manifest_runtime_module(data_dir, module_name, *, expected_sha256=None, manifest=None):
    expanded = os.path.expanduser(data_dir or _DEFAULT)
    runtime_root = os.path.realpath(expanded)
    if runtime_root not in sys.path:
        sys.path.insert(0, runtime_root)
    if manifest is None:
        manifest = _read_manifest(expanded)
    relative_path, file_info = _select_runtime_module_manifest_entry(manifest, module_name)
    if relative_path is None:
        absent = f"Manifest does not contain a runtime module for {module_name!r}."
        raise RuntimeModuleDownloadIncomplete(absent, module_name=module_name, expected_sha256=expected_sha256)
    expected = expected_sha256 if expected_sha256 else file_info.get("sha256")
    candidate = os.path.join(expanded, relative_path)
    fields = {"module_name": module_name, "relative_path": relative_path, "expected_sha256": expected}
    if not os.path.exists(candidate):
        raise RuntimeModuleDownloadIncomplete(f"Runtime module {module_name!r} is missing at {candidate!s}.", **fields)
    actual = _sha256_file(candidate)
    if expected and actual != expected:
        other = f"Runtime module {module_name!r} hash mismatch at {candidate!s}: expected {expected!s}, got {actual!s}."
        raise RuntimeModuleHashMismatch(other, **fields, actual_sha256=actual)
    try:
        module = _load_extension_from_path(module_name, candidate)
    except Exception as exc:
        failed = f"Runtime module {module_name!r} failed to load from {candidate!s}: {exc!s}"
        raise RuntimeModuleReloadFailed(failed, **fields, actual_sha256=actual) from exc
    if expected:
        if (stamped := getattr(module, "_corvane_module_sha256", None)) != expected:
            unexpected = f"Runtime module {module_name!r} loaded with unexpected hash."
            raise RuntimeModuleHashMismatch(unexpected, **fields, actual_sha256=stamped)
    return module


def _load_runtime_modules_from_manifest(data_dir, manifest):
    loaded = {}
    entries = list(_runtime_module_manifest_entries(manifest))
    entries.sort(key=lambda item: (0 if item[0] == "era_data" else 1, item[0], item[1]))
    for module_name, _relative_path, file_info in entries:
        load, expected = _load_manifest_runtime_module, file_info.get("sha256")
        loaded[module_name] = load(data_dir, module_name, expected_sha256=expected, manifest=manifest)
    return loaded


def create_runtime_freshness_guard(data_dir: str) -> RuntimeFreshnessGuard:
    def _load(module_name, expected_sha256):
        return _load_manifest_runtime_module(data_dir, module_name, expected_sha256=expected_sha256)

    return RuntimeFreshnessGuard(data_dir=data_dir, module_loader=_load)


def _load_per_era_backtester(data_dir):
    expanded = os.path.expanduser(data_dir or _DEFAULT)
    runtime_root = os.path.realpath(expanded)
    if runtime_root not in sys.path:
        sys.path.insert(0, runtime_root)
    try:
        manifest = _read_manifest(expanded)
    except RuntimeModuleDownloadIncomplete as exc:
        raise RuntimeModuleDownloadIncomplete(
            "Per-era backtester runtime is required; sync the runtime manifest before loading the SDK backtester.",
            module_name="backtester",
            relative_path=getattr(exc, "relative_path", "manifest.json"),
            expected_sha256=getattr(exc, "expected_sha256", None),
            actual_sha256=getattr(exc, "actual_sha256", None),
        ) from exc
    loaded = _load_runtime_modules_from_manifest(expanded, manifest)
    module = loaded.get("backtester")
    if module is None:
        raise RuntimeModuleDownloadIncomplete(_NO_BACKTESTER, module_name="backtester")
    logger.info("Loaded per-era backtester from manifest in %s", expanded)
    return module


@dataclass
class WalletRegistration:
    address: str


@dataclass
class AuthToken:
    token: str = field(repr=False)
    expires_at: float

    def __repr__(self):
        return f"AuthToken(token='<redacted>', expires_at={self.expires_at!r})"


def _find_heartbeat(working_dir=None):
    current = os.getcwd() if working_dir is None else working_dir
    for _ in range(4):
        path = os.path.join(current, "HEARTBEAT.md")
        if os.path.exists(path):
            return path
        child, current = current, os.path.dirname(current)
        if current == child:
            break
    return None


def _fetch_eras_payload(am):
    token = am.get_token()
    if not token:
        raise RuntimeError("Registration bootstrap could not fetch /eras without an auth token.")
    url = _config["server_url"].rstrip("/") + "/eras"
    request = urllib.request.Request(url, headers={"Authorization": f"Bearer {token!s}"}, method="GET")
    try:
        with urllib.request.urlopen(request, timeout=15) as response:
            status = getattr(response, "status", 200)
            body = response.read()
    except (OSError, urllib.error.URLError, TimeoutError) as exc:
        raise RuntimeError("Registration bootstrap failed to fetch /eras.") from exc
    if status != 200:
        raise RuntimeError(f"Registration bootstrap failed to fetch /eras: HTTP {status!s}")
    try:
        payload = json.loads(body.decode("utf-8"))
    except (UnicodeDecodeError, json.JSONDecodeError) as exc:
        raise RuntimeError("Registration bootstrap received invalid /eras JSON.") from exc
    if not isinstance(payload, dict):
        raise RuntimeError("Registration bootstrap received invalid /eras payload.")
    return payload


def _safe_named_universe(value):
    if value is None:
        return None
    text = (value if isinstance(value, str) else str(value)).strip()
    if not text or text in (".", "..") or "/" in text or "\\" in text or "\0" in text:
        return None
    return text


def _append_unique_named_universe(candidates, value):
    name = _safe_named_universe(value)
    if name and name not in candidates:
        candidates.append(name)


def _append_allowed_named_universes(candidates, values):
    if isinstance(values, list):
        for value in values:
            _append_unique_named_universe(candidates, value)
    else:
        _append_unique_named_universe(candidates, values)


def _active_era_named_universe_candidates(era):
    candidates = []
    _append_unique_named_universe(candidates, era.get("named_universe"))
    _append_allowed_named_universes(candidates, era.get("allowed_named_universes"))
    signal_pools = era.get("signal_pools")
    if isinstance(signal_pools, list):
        for pool in signal_pools:
            if isinstance(pool, dict):
                _append_allowed_named_universes(candidates, pool.get("allowed_named_universes"))
    universes = era.get("universes")
    if isinstance(universes, list):
        for universe in universes:
            if isinstance(universe, dict):
                if stable_name := universe.get("named_universe") or universe.get("id") or universe.get("name"):
                    _append_unique_named_universe(candidates, stable_name)
            else:
                _append_unique_named_universe(candidates, universe)
    elif isinstance(universes, dict):
        for key in sorted(universes):
            _append_unique_named_universe(candidates, key)
    return candidates


def _first_allowed_named_universe_from_era_config(era_config):
    if not isinstance(era_config, dict):
        return None
    signal_pools = era_config.get("signal_pools")
    pools = [pool for pool in signal_pools if isinstance(pool, dict)] if isinstance(signal_pools, list) else []
    for holder in [*pools, era_config]:
        allowed = holder.get("allowed_named_universes")
        for value in allowed if isinstance(allowed, list) else [allowed]:
            if usable := _safe_named_universe(value):
                return usable
    return _safe_named_universe(era_config.get("named_universe"))


def _resolve_active_named_universe(am):
    if configured := _safe_named_universe(_config.get("named_universe")):
        _config["named_universe"] = configured
        return configured
    eras = _fetch_eras_payload(am).get("eras")
    if not isinstance(eras, list):
        raise RuntimeError("Registration bootstrap /eras payload is missing eras list.")
    active = [era for era in eras if isinstance(era, dict) and str(era.get("state", "")).lower() == "active"]
    if len(active) != 1:
        raise RuntimeError(f"Registration bootstrap expected exactly one active era from /eras, got {len(active)}.")
    candidates = _active_era_named_universe_candidates(active[0])
    if len(candidates) != 1:
        found = f"got {len(candidates)}."
        raise RuntimeError(f"Registration bootstrap expected exactly one active named universe from /eras, {found}")
    _config["named_universe"] = candidates[0]
    return candidates[0]


def _canonical_data_dir(data_dir):
    if not data_dir:
        data_dir = _DEFAULT
    return os.path.realpath(os.path.expanduser(data_dir))


def _wallet_key_path(data_dir):
    return os.path.join(_canonical_data_dir(data_dir), "wallet.key")


def _unsafe_wallet_error(wallet_path):
    return IOError(f"Unsafe wallet key at {wallet_path!s}. {_REFUSING}")


def _check_wallet_fd(wallet_path, fd):
    st = os.fstat(fd)
    if not _stat.S_ISREG(st.st_mode):
        raise _unsafe_wallet_error(wallet_path)
    if hasattr(os, "getuid") and st.st_uid != os.getuid():
        raise _unsafe_wallet_error(wallet_path)
    if st.st_mode & 0o077:
        os.fchmod(fd, 0o600)


def _read_wallet_key(data_dir):
    wallet_path = _wallet_key_path(data_dir)
    if not os.path.exists(wallet_path):
        return None
    try:
        st = os.lstat(wallet_path)
    except OSError:
        raise IOError(f"Cannot read wallet from {wallet_path!s}. Check file permissions.")
    if _stat.S_ISLNK(st.st_mode) or not _stat.S_ISREG(st.st_mode):
        raise _unsafe_wallet_error(wallet_path)
    if hasattr(os, "getuid") and st.st_uid != os.getuid():
        raise _unsafe_wallet_error(wallet_path)
    flags = os.O_RDONLY | (os.O_NOFOLLOW if hasattr(os, "O_NOFOLLOW") else 0)
    try:
        fd = os.open(wallet_path, flags)
    except OSError:
        raise _unsafe_wallet_error(wallet_path)
    try:
        _check_wallet_fd(wallet_path, fd)
        with os.fdopen(fd, "r") as f:
            fd = None
            return f.read().strip()
    finally:
        if fd is not None:
            os.close(fd)


def _write_wallet_key(data_dir, key_content):
    data_dir = _canonical_data_dir(data_dir)
    os.makedirs(data_dir, exist_ok=True)
    wallet_path = _wallet_key_path(data_dir)
    if os.path.exists(wallet_path):
        try:
            st = os.lstat(wallet_path)
        except OSError:
            raise IOError(f"Cannot write wallet to {wallet_path!s}. Check directory permissions.")
        if _stat.S_ISLNK(st.st_mode) or not _stat.S_ISREG(st.st_mode):
            raise _unsafe_wallet_error(wallet_path)
        if hasattr(os, "getuid") and st.st_uid != os.getuid():
            raise _unsafe_wallet_error(wallet_path)
    try:
        flags = os.O_WRONLY | os.O_CREAT | os.O_TRUNC | (os.O_NOFOLLOW if hasattr(os, "O_NOFOLLOW") else 0)
        fd = os.open(wallet_path, flags, 0o600)
        try:
            _check_wallet_fd(wallet_path, fd)
            os.fchmod(fd, 0o600)
            os.write(fd, key_content.encode("utf-8"))
        finally:
            os.close(fd)
        os.chmod(wallet_path, 0o600)
    except (IOError, OSError):
        raise IOError(f"Cannot write wallet to {wallet_path!s}. Check directory permissions.")


def _read_json_if_present(path):
    if not path or not os.path.exists(path):
        return None
    with open(path, "r", encoding="utf-8") as f:
        return json.load(f)


def _local_vocabulary_path(data_dir, named_universe):
    own = [os.path.join(data_dir, "features", named_universe, "vocabulary.json")] if named_universe else []
    for path in [*own, os.path.join(data_dir, "vocabulary.json")]:
        if os.path.exists(path):
            return path
    return None


def _bootstrap_local_runtime_from_config(am):
    data_dir = os.path.realpath(os.path.expanduser(_config.get("data_dir") or _DEFAULT))
    era_config = _config.get("era_config")
    if not isinstance(era_config, dict):
        return None
    named_universe = _config.get("named_universe") or _first_allowed_named_universe_from_era_config(era_config)
    vocabulary = _read_json_if_present(_local_vocabulary_path(data_dir, named_universe))
    if not isinstance(vocabulary, dict):
        return None
    from corvane import _runtime
    from corvane.search_tracking import SearchTracker

    runtime_freshness_guard = create_runtime_freshness_guard(data_dir)
    manifest_data = _read_manifest(data_dir)
    manifest_path = os.path.join(data_dir, "manifest.json")
    manifest_payload = _read_json_if_present(manifest_path)
    if not isinstance(manifest_payload, dict):
        manifest_payload = {}
    loaded_runtime_modules = _load_runtime_modules_from_manifest(data_dir, manifest_data)
    raw_backtester = loaded_runtime_modules.get("backtester")
    if raw_backtester is None:
        raise RuntimeModuleDownloadIncomplete(_NO_BACKTESTER, module_name="backtester")
    if getattr(raw_backtester, "_corvane_module_sha256", None):
        record = runtime_freshness_guard.record_loaded_module
        record("backtester", raw_backtester._corvane_module_sha256, module=raw_backtester)
    era_id = int(era_config.get("era_id") or vocabulary.get("era_id") or 0)
    manifest = SimpleNamespace(era_id=era_id, files=dict(_manifest_files(manifest_data)), named_universe=named_universe)
    sync_manager = _LocalRuntimeSyncManager(manifest, runtime_freshness_guard=runtime_freshness_guard)
    vault_module = loaded_runtime_modules.get("era_data")
    if vault_module is None:
        vault_module = _runtime._load_vault_module(vault_module=None)
    era_config = _runtime._normalize_era_config(era_config, vocabulary, manifest=manifest_payload)
    vault = _runtime._wrap_synced_vault(vault_module, manifest=manifest, era_config=era_config)
    registry = _runtime._build_function_registry(vocabulary, era_config=era_config)
    batch_cls = compute_plan = expression_type_cls = expression_evaluator = None
    try:
        batch_cls, compute_plan, expression_type_cls, expression_evaluator = _runtime._import_batch_runtime()
    except Exception as e:
        failed = "Batch runtime import failed during local bootstrap"
        logger.warning(failed + "; continuing without batch orchestration helpers: %s", e)
    evaluator = _runtime.RuntimeEvaluationAdapter(
        data_dir=data_dir,
        era_config=era_config,
        raw_backtester=raw_backtester,
        vault=vault,
        manifest=manifest,
        graph_validator=None,
        batch_orchestrator_cls=batch_cls,
        compute_search_plan=compute_plan,
        expression_type_cls=expression_type_cls,
        expression_evaluator=expression_evaluator,
        registry=registry,
        raw_vocabulary=vocabulary,
        named_universe=named_universe,
        auth=am,
        runtime_freshness_guard=runtime_freshness_guard,
    )
    runtime_freshness_guard.register_module_consumer("backtester", evaluator, "raw_backtester")
    tracker = SearchTracker(data_dir)
    feature_dirs = {named_universe: os.path.join(data_dir, "features", named_universe)}
    adapter = _runtime._RuntimeManifestAdapter(
        manifest, feature_epoch="signal_is", named_universe=named_universe, era_config=era_config
    )
    runtime = _runtime.LibraryRuntime(
        auth=am,
        auth_proxy=am,
        data_dir=data_dir,
        server_url=_config.get("server_url") or "https://api.corvane.example",
        sync_manager=sync_manager,
        era_id=era_id,
        era_thread=_runtime._EraThreadProxy(sync_manager),
        era_config=era_config,
        search_era_config=_runtime._SearchEraConfig(era_config),
        named_universes=(named_universe,),
        default_named_universe=named_universe,
        vocabularies={named_universe: vocabulary},
        feature_dirs=feature_dirs,
        manifest_adapters={named_universe: adapter},
        vocabulary_raw=vocabulary,
        registry=evaluator.registry,
        vault=vault,
        raw_backtester=raw_backtester,
        evaluator=evaluator,
        search_tracker=tracker,
        runtime_freshness_guard=runtime_freshness_guard,
    )
    _runtime._runtime = runtime
    try:
        build = _runtime._build_graph_validator
        evaluator.graph_validator = build(evaluator.registry, vocabulary, era_config, evaluator)
    except Exception:
        _runtime._runtime = None
        raise
    runtime_freshness_guard.register_module_consumer("backtester", runtime, "raw_backtester")
    return runtime


def _propagate_auth(am, strict=False):
    try:
        auth._set_active_auth_manager(am)
    except Exception as e:
        logger.warning("Failed to set active auth manager: %s", e)
        if strict:
            raise RuntimeError("Corvane auth bootstrap failed after authentication.") from e
    runtime = None
    try:
        from corvane import sync_backoff
        from corvane import _runtime

        runtime = _runtime.bootstrap_runtime(am, _config, _load_per_era_backtester)
    except sync_backoff.SyncBackoffCancelled:
        raise
    except Exception as e:
        logger.warning("Failed to bootstrap corvane runtime: %s", e)
        if strict:
            failed = "Corvane registration authenticated, but runtime data bootstrap failed"
            detail = _exception_chain_detail(e)
            raise RuntimeError(f"{failed}: {detail}" if detail else failed) from e
        try:
            runtime = _bootstrap_local_runtime_from_config(am)
        except Exception as local_e:
            logger.debug("Failed to bootstrap local corvane runtime: %s", local_e)
    if strict and runtime is None:
        raise RuntimeError("Corvane registration authenticated, but runtime data bootstrap returned no runtime.")
    try:
        import corvane.search_templates as search_templates

        if runtime is not None:
            search_templates._library_runtime = runtime
    except Exception as e:
        logger.warning("Failed to inject runtime into search_templates: %s", e)
        if strict:
            raise RuntimeError("Corvane search runtime injection failed.") from e
    try:
        sim_mod = importlib.import_module("corvane.simulate_signal")
        if runtime is None:
            raise RuntimeError("private corvane runtime was not initialized")
        sim_mod.init_simulate_signal(
            auth=am,
            sync_manager=runtime.sync_manager,
            vault=runtime.vault,
            backtester=runtime.evaluator,
            search_tracker=runtime.search_tracker,
            era_thread=runtime.era_thread,
            graph_validator=getattr(runtime.evaluator, "graph_validator", None),
            compute_search_plan=runtime.evaluator.compute_search_plan,
            era_config=runtime.era_config,
            load_vocabulary=runtime.load_vocabulary,
            useful_signal_metadata=getattr(runtime.sync_manager, "_vocabulary", None),
            load_found_signal_pnl=getattr(runtime.evaluator, "load_found_signal_pnl", None),
            signal_dir=runtime.data_dir,
            BatchOrchestrator_cls=runtime.evaluator.make_batch_orchestrator_cls(),
            correlate_per_pool=runtime.evaluator.correlate_per_pool,
            compute_mi_per_pool=runtime.evaluator.compute_mi_per_pool,
            vocabulary=getattr(runtime, "registry", None),
            vocabulary_raw=runtime.vocabulary_raw,
            runtime_freshness_guard=runtime.runtime_freshness_guard,
        )
        try:
            import corvane

            corvane.simulate_signal = sim_mod._simulate_signal_export
        except Exception as e:
            logger.warning("Failed to restore top-level simulate exports: %s", e)
            if strict:
                raise RuntimeError("Corvane simulate exports bootstrap failed.") from e
    except Exception as e:
        logger.warning("Failed to initialize simulate_signal: %s", e)
        if strict:
            failed, detail = "Corvane simulate_signal bootstrap failed", _exception_chain_detail(e)
            raise RuntimeError(f"{failed}: {detail}" if detail else failed) from e
    return runtime


def _normalize_key(raw_key):
    if raw_key.startswith("0x") or raw_key.startswith("0X"):
        return raw_key
    return "0x" + raw_key


def _resolve_invite_code(invite_code):
    if invite_code is None:
        invite_code = os.environ.get("CORVANE_INVITE_CODE")
    if (canonical := auth._normalize_invite_code(invite_code)) is None:
        raise ValueError(
            "Invite code required. Pass --invite-code, set CORVANE_INVITE_CODE, or call register(invite_code=...)."
        )
    return canonical


def _resolve_optional_invite_code(invite_code):
    return auth._normalize_invite_code(invite_code)


def register(
    invite_code: Optional[str] = None, data_dir: Optional[str] = None, bootstrap_runtime: bool = False
) -> WalletRegistration:
    global _auth_manager
    selected_data_dir = data_dir if data_dir is not None else _config["data_dir"]
    canonical_data_dir = _canonical_data_dir(selected_data_dir)
    _config["data_dir"] = canonical_data_dir
    os.makedirs(canonical_data_dir, exist_ok=True)
    private_key = _read_wallet_key(canonical_data_dir)
    if private_key is None:
        invite_code = _resolve_invite_code(invite_code)
        private_key = secrets.token_hex(32)
        _write_wallet_key(canonical_data_dir, private_key)
    else:
        invite_code = _resolve_optional_invite_code(invite_code)
    key_for_auth = _normalize_key(private_key)
    try:
        am = auth.AuthManager(key_for_auth, _config["server_url"], invite_code=invite_code)
        am.authenticate()
    except ConnectionError:
        raise ConnectionError(_UNREACHABLE)
    except auth.RegistrationError as e:
        raise auth.RegistrationError("Registration failed: " + str(e) + ". Contact support if this persists.")
    except auth.InvalidKeyError:
        raise ValueError(_INVALID)
    _auth_manager = am
    if bootstrap_runtime:
        _resolve_active_named_universe(am)
        _propagate_auth(am, strict=True)
    try:
        auth._set_active_auth_manager(am)
    except Exception as e:
        logger.warning("Failed to set active auth manager: %s", e)
    address = am.get_wallet_address()
    if _config.get("auto_heartbeat", True):
        inject_heartbeat()
    return WalletRegistration(address=address)


def login(private_key: str, bootstrap_runtime: bool = False) -> AuthToken:
    global _auth_manager
    if private_key is None:
        raise ValueError(_INVALID)
    data_dir = _canonical_data_dir(_config["data_dir"])
    _config["data_dir"] = data_dir
    os.makedirs(data_dir, exist_ok=True)
    _write_wallet_key(data_dir, private_key)
    key_for_auth = _normalize_key(private_key)
    try:
        am = auth.AuthManager(key_for_auth, _config["server_url"])
        am.authenticate()
    except auth.InvalidKeyError:
        raise ValueError(_INVALID)
    except ConnectionError:
        raise ConnectionError(_UNREACHABLE)
    except auth.AuthError:
        raise auth.AuthError("Authentication failed. Verify your private key is correct.")
    _auth_manager = am
    if bootstrap_runtime:
        _propagate_auth(am, strict=True)
    try:
        auth._set_active_auth_manager(am)
    except Exception as e:
        logger.warning("Failed to set active auth manager: %s", e)
    return AuthToken(token=am.get_token(), expires_at=am.get_token_expiry())


def configure(**kwargs: object) -> None:
    for key, value in kwargs.items():
        if key not in _VALID_OPTIONS:
            valid = ", ".join(sorted(_VALID_OPTIONS))
            raise ValueError(f"Unknown configuration option: '{key}'. Valid options: {valid}")
        expected_type = _VALID_OPTIONS[key]
        if not isinstance(value, expected_type):
            raise ValueError(f"Option '{key}' expects {expected_type.__name__}, got {type(value).__name__}.")
        if key == "data_dir" and value == "":
            raise ValueError("data_dir cannot be empty.")
        if key == "server_url":
            value = auth._validate_server_url(value)
        if key == "named_universe":
            value = value.strip()
            if not value:
                raise ValueError("named_universe cannot be empty.")
            if value in (".", "..") or "/" in value or "\\" in value or "\0" in value:
                raise ValueError("named_universe must be a single safe path segment.")
        _config[key] = value


def ensure_runtime_bootstrapped(strict: bool = True) -> object:
    if _auth_manager is None:
        if not strict:
            return None
        raise auth.AuthError("No wallet initialized. Call register() or login() first.")
    from corvane import _runtime

    runtime = _runtime.get_runtime()
    if runtime is not None:
        try:
            import corvane.search_templates as search_templates

            search_templates._library_runtime = runtime
        except Exception as e:
            logger.warning("Failed to inject existing runtime into search_templates: %s", e)
            if strict:
                raise RuntimeError("Corvane search runtime injection failed.") from e
        return runtime
    _resolve_active_named_universe(_auth_manager)
    return _propagate_auth(_auth_manager, strict=strict)


def inject_heartbeat(working_dir: Optional[str] = None) -> None:
    if not _config.get("auto_heartbeat", True):
        return
    hb_path = _find_heartbeat(working_dir)
    if hb_path is None:
        return
    try:
        with open(hb_path, "r", encoding="utf-8") as f:
            content = f.read()
    except Exception as e:
        logger.warning("Failed to read HEARTBEAT.md at %s: %s", hb_path, e)
        return
    if "## [Corvane]" in content:
        return
    if content and not content.endswith("\n"):
        content = content + "\n"
    content = content + "\n" + _HEARTBEAT_STATIC_SECTION
    try:
        with open(hb_path, "w", encoding="utf-8") as f:
            f.write(content)
    except Exception as e:
        logger.warning("Failed to write HEARTBEAT.md at %s: %s", hb_path, e)


def update_nudge(trigger: str, **context: object) -> None:
    if not _config.get("auto_heartbeat", True) or trigger not in _NUDGE_TEXTS:
        return
    nudge_text = _NUDGE_TEXTS[trigger]
    try:
        hb_path = _find_heartbeat()
        if hb_path is None:
            return
        with open(hb_path, "r", encoding="utf-8") as f:
            content = f.read()
        if nudge_text in content:
            return
        if not content.endswith("\n"):
            content = content + "\n"
        content = content + nudge_text + "\n"
        with open(hb_path, "w", encoding="utf-8") as f:
            f.write(content)
    except Exception as e:
        logger.warning("update_nudge failed: %s", e)


def get_agents_md_fragment() -> str:
    return _AGENTS_MD_FRAGMENT
