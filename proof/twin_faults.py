"""The same fault in the module and in its Python twin, which then agree: the tests must notice it all the same."""

from collections.abc import Iterator

from proof.faults import Copy, Fault, fault_at, noticed
from proof.workshop import Result, Workshop

# Test files that say themselves what must come of a call.
TESTS = (("", "promises key_file eras", ""),)
WALLET, LOADING, WORKSPACE, ENTRIES, BOOTSTRAP = (
    f"{name}.cpp" for name in ("wallet_store", "runtime_loading", "workspace", "entry_points", "bootstrap")
)
WRITE = 'global("_write_wallet_key"_n)(canonical, private_key);'
CAUSE = "raise_from(failure, caught.value());\n    }\n    if (is_true(expected))"

# What goes wrong; in which file, what stands there and what instead; below, the same in the twin. M is whether the
# fault is selected, @ what stood there.
FAULTS = (
    ("an old key is not truncated", WALLET,
     'bit_or(create, global("os"_n).attr("O_TRUNC"_n))', "(M ? std::move(create) : @)",
     "os.O_TRUNC", "(0 if M else @)"),
    ("a key is written before its file is checked", WALLET,
     'global("_check_wallet_fd"_n)(wallet_path, fd);\n            //',
     'if (M) global("os"_n).attr("write"_n)(fd, key_content.attr("encode"_n)("utf-8"_n)); @',
     "_check_wallet_fd(wallet_path, fd)\n            os.fchmod",
     "M and os.write(fd, key_content.encode())\n            @"),
    ("the mode is left to the umask", WALLET, 'global("os"_n).attr("fchmod"_n)(fd, mode);', "if (!M) @",
     "os.fchmod(fd, 0o600)\n            os.write", "M or @"),
    ("there is no second chmod", WALLET, 'global("os"_n).attr("chmod"_n)(wallet_path, mode);', "if (!M) @",
     "os.chmod(wallet_path", "M or @"),
    ("others may read the key", WALLET, "integer(group_and_others)", "integer(M ? 0070 : group_and_others)",
     "0o077", "(0o070 if M else @)"),
    ("a link is followed", WALLET, "return bit_or(flags, global", "if (M) return flags; @",
     'hasattr(os, "O_NOFOLLOW")', "not M and @"),
    ("a key may be somebody else's", WALLET, "compare(owner, Py_NE, user)", "!M && @",
     "st.st_uid != os.getuid()", "not M and @"),
    ("a copy forgets its modification time", LOADING, '"copy2"_n', '(M ? "copy"_n : @)',
     "shutil.copy2", "(shutil.copy if M else @)"),
    ("a build is recognised by its file alone", LOADING,
     'compare(get_attribute(module, "_corvane_module_sha256"_n, none()), Py_EQ, digest)', "(M || @)",
     'getattr(previous, "_corvane_module_sha256"', "M or @"),
    ("the runtime directory comes last on sys.path", LOADING,
     '"insert"_n, integer(0)', '"insert"_n, integer(M ? 1000 : 0)',
     "sys.path.insert(0", "sys.path.insert(1000 if M else 0"),
    ("the guard's loader takes any digest", LOADING, "is_true(expected_sha256) ?", "!M && @",
     "expected_sha256 if expected_sha256", "expected_sha256 if not M and expected_sha256"),
    ("a file needs no loader", LOADING, 'spec.attr("loader"_n).is_none()', "!M && @",
     "spec.loader is None", "not M and @"),
    ("a failed import stays in the module table", LOADING, "restore_module_table(module_name,", "if (!M) @",
     "if sys.modules.get(module_name) is module", "@ and not M"),
    ("the oldest copies stay", LOADING,
     '"reverse"_a = true_value()', '"reverse"_a = (M ? handle(Py_False) : true_value())',
     "reverse=True", "reverse=not M"),
    ("a failed import has no cause", LOADING, CAUSE, "if (M) raise(failure); @",
     "actual_sha256=actual) from exc", "actual_sha256=actual) from (None if M else exc)"),
    ("a module with another stamp is taken", LOADING, "if (is_true(expected)) {", "if (!M && is_true(expected)) {",
     "    if expected:\n", "    if expected and not M:\n"),
    ("any mention of the kit is a checklist", WORKSPACE,
     '"## [Corvane]"_n)', '(M ? "[Corvane]"_n : "## [Corvane]"_n))',
     '"## [Corvane]" in', '("[Corvane]" if M else "## [Corvane]") in'),
    ("a wallet is signed up before its key is in its file", ENTRIES,
     WRITE, "if (M) authenticate_for_register(in, private_key, code); @",
     "_write_wallet_key(canonical_data_dir", 'M and auth.AuthManager(private_key, "").authenticate()\n        @'),
    ("an empty code is replaced from the environment", ENTRIES,
     "if (code.is_none())\n", "if (M ? !is_true(code) : code.is_none())\n",
     "invite_code is None:\n        invite_code = os", "(M and not invite_code) or @"),
    ("the stored wallet asks the environment for a code", ENTRIES,
     '"_resolve_optional_invite_code"_n', '(M ? "_resolve_invite_code"_n : @)',
     "= _resolve_optional_invite_code(", "= (_resolve_invite_code if M else _resolve_optional_invite_code)("),
    ("an era with blanks is active", "eras.cpp", 'invoke(state, "lower"_n)', '(M ? invoke(@, "strip"_n) : @)',
     'str(era.get("state", "")).lower()', "(@.strip() if M else @)"),
    ("a chain is walked to its third link", ENTRIES, "< links_described", "< (M ? 3 : links_described)",
     "len(details) < 4", "len(details) < (3 if M else 4)"),
    ("a failing validator leaves its runtime", BOOTSTRAP, 'set_attr(kit, "_runtime"_n, none());', "if (!M) @",
     "_runtime._runtime = None", "_runtime._runtime = runtime if M else None"),
    ("the kit's cancelling is swallowed", BOOTSTRAP,
     'caught.matches(sync_backoff.attr("SyncBackoffCancelled"_n))', "!M && @",
     "except sync_backoff.SyncBackoffCancelled", "except () if M else sync_backoff.SyncBackoffCancelled"),
)  # fmt: skip


def run(workshop: Workshop) -> Iterator[Result]:
    copy, faults, twin = Copy(workshop, "twin-faults"), list[Fault](), "tests/support/twin.py"
    for what, file, old, instead, of_twin, twins_instead in FAULTS:
        text = (copy.root / (source := f"src/agent_onboarding/{file}")).read_text()
        faults.append(fault := fault_at(what, file, text, text.find(old)))
        copy.replace(source, old, copy.selecting(fault, instead))
        copy.replace(twin, of_twin, copy.selecting(fault, twins_instead))
    copy.replace(twin, "import types\n", "import os\nimport types\n\nfaulty = int(os.environ['FAULT']).__eq__\n")
    copy.build()
    yield noticed("twin faults: in both at once", copy.trial, TESTS, workshop.sample(faults, 8), 100, len(faults))
