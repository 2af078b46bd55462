"""The same fault in the module and in its Python twin, which then agree: the tests must notice it all the same."""

import re
from collections.abc import Iterator

from proof.mutations import copied_sources
from proof.workshop import Result, Workshop, side_by_side

SEEN_BY = "promises", "key_file", "eras", "runtime"  # test files that say themselves what must come of a call
WALLET, LOADING, WORKSPACE, ENTRIES, BOOTSTRAP = (
    f"{name}.cpp" for name in ("wallet_store", "runtime_loading", "workspace", "entry_points", "bootstrap")
)
WRITE = 'global("_write_wallet_key"_n)(canonical, private_key);'
CAUSE = "raise_from(failure, caught.value());\n    }\n    if (is_true(expected))"

# What goes wrong; in which file, what stands there and what instead; the same in the twin. M is whether this fault is
# selected, @ what stood there.
FAULTS = (
    ("an old key is not truncated", WALLET, 'bit_or(create, global("os"_n).attr("O_TRUNC"_n))',
     "(M ? std::move(create) : @)", "os.O_TRUNC", "(0 if M else @)"),
    ("a key is written before its file is checked", WALLET,
     'global("_check_wallet_fd"_n)(wallet_path, fd);\n            //',
     'if (M) global("os"_n).attr("write"_n)(fd, key_content.attr("encode"_n)("utf-8"_n)); @',
     "_check_wallet_fd(wallet_path, fd)\n            os.fchmod",
     "M and os.write(fd, key_content.encode())\n            @"),
    ("the mode is left to the umask", WALLET, 'global("os"_n).attr("fchmod"_n)(fd, mode);', "if (!M) @",
     "os.fchmod(fd, 0o600)\n            os.write", "M or @"),
    ("there is no second chmod", WALLET, 'global("os"_n).attr("chmod"_n)(wallet_path, mode);', "if (!M) @",
     "os.chmod(wallet_path", "M or @"),
    ("others may read the key", WALLET, "integer(group_and_others)", "integer(M ? 0070 : group_and_others)", "0o077",
     "(0o070 if M else @)"),
    ("a link is followed", WALLET, "return bit_or(flags, global", "if (M) return flags; @", 'hasattr(os, "O_NOFOLLOW")',
     "not M and @"),
    ("a key may be somebody else's", WALLET, "compare(owner, Py_NE, user)", "!M && @", "st.st_uid != os.getuid()",
     "not M and @"),
    ("a copy forgets its modification time", LOADING, '"copy2"_n', '(M ? "copy"_n : @)', "shutil.copy2",
     "(shutil.copy if M else @)"),
    ("a build is recognised by its file alone", LOADING,
     'compare(get_attribute(module, "_corvane_module_sha256"_n, none()), Py_EQ, digest)', "(M || @)",
     'getattr(previous, "_corvane_module_sha256"', "M or @"),
    ("the runtime directory comes last on sys.path", LOADING, '"insert"_n, integer(0)',
     '"insert"_n, integer(M ? 1000 : 0)',
     "sys.path.insert(0", "sys.path.insert(1000 if M else 0"),
    ("the guard's loader takes any digest", LOADING, "is_true(expected_sha256) ?", "!M && @",
     "expected_sha256 if expected_sha256", "expected_sha256 if not M and expected_sha256"),
    ("a file needs no loader", LOADING, 'spec.attr("loader"_n).is_none()', "!M && @", "spec.loader is None",
     "not M and @"),
    ("a failed import stays in the module table", LOADING, "restore_module_table(module_name,", "if (!M) @",
     "if sys.modules.get(module_name) is module", "@ and not M"),
    ("the oldest copies stay", LOADING, '"reverse"_a = true_value()',
     '"reverse"_a = (M ? handle(Py_False) : true_value())',
     "reverse=True", "reverse=not M"),
    ("a failed import has no cause", LOADING, CAUSE, "if (M) raise(failure); @", "actual_sha256=actual) from exc",
     "actual_sha256=actual) from (None if M else exc)"),
    ("a module with another stamp is taken", LOADING, "if (is_true(expected)) {", "if (!M && is_true(expected)) {",
     "    if expected:\n", "    if expected and not M:\n"),
    ("any mention of the kit is a checklist", WORKSPACE, '"## [Corvane]"_n)', '(M ? "[Corvane]"_n : "## [Corvane]"_n))',
     '"## [Corvane]" in', '("[Corvane]" if M else "## [Corvane]") in'),
    ("a wallet is signed up before its key is in its file", ENTRIES, WRITE,
     "if (M) authenticate_for_register(in, private_key, code); @", "_write_wallet_key(canonical_data_dir",
     'M and auth.AuthManager(private_key, "").authenticate()\n        @'),
    ("an empty code is replaced from the environment", ENTRIES, "if (code.is_none())\n",
     "if (M ? !is_true(code) : code.is_none())\n",
     "invite_code is None:\n        invite_code = os", "(M and not invite_code) or @"),
    ("the stored wallet asks the environment for a code", ENTRIES, '"_resolve_optional_invite_code"_n',
     '(M ? "_resolve_invite_code"_n : @)', "= _resolve_optional_invite_code(",
     "= (_resolve_invite_code if M else _resolve_optional_invite_code)("),
    ("an era with blanks is active", "eras.cpp", 'invoke(state, "lower"_n)', '(M ? invoke(@, "strip"_n) : @)',
     'str(era.get("state", "")).lower()', "(@.strip() if M else @)"),
    ("a chain is walked to its third link", ENTRIES, "< links_described", "< (M ? 3 : links_described)",
     "len(details) < 4",
     "len(details) < (3 if M else 4)"),
    ("a failing validator leaves its runtime", BOOTSTRAP, 'set_attr(kit, "_runtime"_n, none());', "if (!M) @",
     "_runtime._runtime = None", "_runtime._runtime = runtime if M else None"),
    ("the kit's cancelling is swallowed", BOOTSTRAP, 'caught.matches(sync_backoff.attr("SyncBackoffCancelled"_n))',
     "!M && @",
     "except sync_backoff.SyncBackoffCancelled", "except () if M else sync_backoff.SyncBackoffCancelled"),
)  # fmt: skip


def planted(text: str, number: int, old: str, instead: str, selected: str) -> str:
    """The text with the fault at each of its places."""
    if old not in text:
        raise RuntimeError(f"the place of this fault is gone: {FAULTS[number - 1][0]}")
    return text.replace(old, re.sub(r"\bM\b", selected, instead).replace("@", old))


def run(workshop: Workshop) -> Iterator[Result]:
    copy, flags = copied_sources(workshop, "twin-faults", "tests")
    twin = copy / "tests" / "support" / "twin.py"
    of_twin = twin.read_text()
    for number, (_, file, there, instead, twins, twins_instead) in enumerate(FAULTS, 1):
        source = copy / "src" / "agent_onboarding" / file
        source.write_text(planted(source.read_text(), number, there, instead, f"mutant({number})"))
        of_twin = planted(of_twin, number, twins, twins_instead, f"(MUTANT == {number})")
    selected = "import os\nimport types\n\nMUTANT = int(os.environ['MUTANT'])\n"
    twin.write_text(of_twin.replace("import types\n", selected, 1))
    site = workshop.build("twin-faults-built", "-DCMAKE_BUILD_TYPE=Debug", flags, source=copy)
    options = "-m", "pytest", "-c", f"{workshop.root}/pyproject.toml", "-p", "no:cacheprovider", "-x", "-q"
    files = [str(copy / "tests" / f"test_{name}.py") for name in SEEN_BY]
    path = f"{site['PYTHONPATH'].split(':')[0]}:{workshop.root}:{copy / 'tests'}"

    def noticed(number: int) -> bool:
        done = workshop.python(*options, *files, MUTANT=str(number), PYTHONPATH=path)
        if done.returncode not in (0, 1):  # 1: tests have failed; anything else: they did not even run
            raise RuntimeError(f"the tests did not run: {done.stdout[-2000:]}{done.stderr[-2000:]}")
        return done.returncode != 0

    found = ["without any fault the tests fail"] if noticed(0) else []
    numbers = list(range(1, len(FAULTS) + 1))[:: 8 if workshop.quick else 1]
    seen = side_by_side(noticed, numbers)
    found += [FAULTS[number - 1][0] for number, caught in zip(numbers, seen, strict=True) if not caught]
    yield Result(f"twin faults: in both at once, {sum(seen)} noticed", len(numbers), found)
