// The data directory and the one file that holds the wallet's private key.
//
// A key file is used only if it is a regular file of the current user; its permission bits are tightened to 0600. The
// tests run twice: on the path before the file is opened, and on the open descriptor, which nobody can swap.
#include "module.hpp"

namespace corvane::onboarding {

namespace {

constexpr long owner_only = 0600;
constexpr long group_and_others = 0077;

/// `hasattr(os, "getuid") and st.st_uid != os.getuid()`
bool is_foreign(handle status) {
    // A platform whose users have no numbers has no getuid; its access rules have to do.
    object os = global("os"_n);
    if (!is_true(global("hasattr"_n)(os, "getuid"_n)))
        return false;
    object owner = status.attr("st_uid"_n);
    object user = global("os"_n).attr("getuid"_n)();
    return compare(owner, Py_NE, user);
}

/// `_stat.S_ISREG(st.st_mode)`
bool is_regular(handle status) {
    callee test = global("_stat"_n).attr("S_ISREG"_n);
    return is_true(test(status.attr("st_mode"_n)));
}

/// The error is made by the function that callers may replace; the traceback says which test refused the file.
[[noreturn]] void raise_unsafe(operand wallet_path) {
    raise(global("_unsafe_wallet_error"_n, wallet_path.at)(wallet_path), wallet_path.at);
}

/// Refuses what lies at the path if it is a link, is not a regular file, or is somebody else's.
void refuse_unsafe_path(handle wallet_path, handle status) {
    callee is_link = global("_stat"_n).attr("S_ISLNK"_n);
    // The tests are apart so that the line in the traceback says which of them refused the file.
    if (is_true(is_link(status.attr("st_mode"_n))) || !is_regular(status))
        raise_unsafe(wallet_path);
    if (is_foreign(status))
        raise_unsafe(wallet_path);
}

/// `flags | os.O_NOFOLLOW`, where the platform has it: a link that takes the place of the file after the tests on the
/// path is not followed.
object with_no_follow(object flags) {
    object os = global("os"_n);
    if (!is_true(global("hasattr"_n)(os, "O_NOFOLLOW"_n)))
        return flags;
    return bit_or(flags, global("os"_n).attr("O_NOFOLLOW"_n));
}

[[noreturn]] void raise_cannot_write(operand wallet_path) {
    const location at = wallet_path.at;
    callee io_error = global("IOError"_n, at);
    raise(io_error(concat({"Cannot write wallet to "_n, at}, wallet_path, ". Check directory permissions."_n)), at);
}

/// `try: return body()`, `finally: cleanup()`. A clean-up that can raise cannot be a destructor.
template <typename Body, typename Cleanup> object try_finally(const frame& in, Body body, Cleanup cleanup) {
    object result;
    try {
        result = body();
    } catch (error& caught) {
        except_scope handling(in, caught);
        cleanup();
        raise_again(caught);
    }
    cleanup();
    return result;
}

/// Opens, checks, writes and closes the key file.
void write_key_file(const frame& in, handle wallet_path, handle key_content) {
    object write_only = global("os"_n).attr("O_WRONLY"_n);
    object create = bit_or(write_only, global("os"_n).attr("O_CREAT"_n));
    object flags = with_no_follow(bit_or(create, global("os"_n).attr("O_TRUNC"_n)));
    object mode = integer(owner_only);
    object fd = global("os"_n).attr("open"_n)(wallet_path, flags, mode);
    try_finally(
        in,
        [&] {
            global("_check_wallet_fd"_n)(wallet_path, fd);
            // A umask can take bits from the mode that a new file is opened with; these are set whatever it is.
            global("os"_n).attr("fchmod"_n)(fd, mode);
            callee write = global("os"_n).attr("write"_n);
            write(fd, key_content.attr("encode"_n)("utf-8"_n));
            return none();
        },
        [&] { global("os"_n).attr("close"_n)(fd); });
    global("os"_n).attr("chmod"_n)(wallet_path, mode);
}

} // namespace

object canonical_data_dir(const frame&, handle data_dir) {
    // data_dir or the default, before `os` is looked up
    handle directory = is_true(data_dir) ? data_dir : interned(node_of<default_data_dir>);
    // Links are resolved once: one that is changed later cannot lead two steps of a call to two wallets.
    callee realpath = global("os"_n).attr("path"_n).attr("realpath"_n);
    return realpath(global("os"_n).attr("path"_n).attr("expanduser"_n)(directory));
}

object wallet_key_path(const frame&, handle data_dir) {
    callee join = global("os"_n).attr("path"_n).attr("join"_n);
    return join(global("_canonical_data_dir"_n)(data_dir), "wallet.key"_n);
}

object unsafe_wallet_error(const frame&, handle wallet_path) {
    callee io_error = global("IOError"_n);
    return io_error(concat("Unsafe wallet key at "_n, wallet_path,
                           ". Refusing to use wallet.key with unsafe ownership, type, or permissions."_n));
}

object check_wallet_fd(const frame&, handle wallet_path, handle fd) {
    object status = global("os"_n).attr("fstat"_n)(fd);
    if (!is_regular(status))
        raise_unsafe(wallet_path);
    if (is_foreign(status))
        raise_unsafe(wallet_path);
    // Only now: the permission bits of somebody else's file are not ours to change.
    object mode = status.attr("st_mode"_n);
    if (is_true(bit_and(mode, integer(group_and_others)))) {
        callee fchmod = global("os"_n).attr("fchmod"_n);
        fchmod(fd, integer(owner_only));
    }
    return none();
}

object read_wallet_key(const frame& in, handle data_dir) {
    // A link that leads nowhere counts as no key here; O_NOFOLLOW keeps a new key from being written through it.
    object wallet_path = global("_wallet_key_path"_n)(data_dir);
    if (!path_exists(wallet_path))
        return none();
    object status;
    try {
        status = global("os"_n).attr("lstat"_n)(wallet_path);
    } catch (error& caught) {
        except_scope handling(in, caught, "OSError"_n);
        callee io_error = global("IOError"_n);
        raise(io_error(concat("Cannot read wallet from "_n, wallet_path, ". Check file permissions."_n)));
    }
    refuse_unsafe_path(wallet_path, status);

    object flags = with_no_follow(global("os"_n).attr("O_RDONLY"_n));
    object fd;
    try {
        fd = global("os"_n).attr("open"_n)(wallet_path, flags);
    } catch (error& caught) {
        except_scope handling(in, caught, "OSError"_n);
        raise_unsafe(wallet_path);
    }
    bool handed_over = false; // to the file object, which closes it
    return try_finally(
        in,
        [&] {
            global("_check_wallet_fd"_n)(wallet_path, fd);
            object key = none();
            with(in, global("os"_n).attr("fdopen"_n)(fd, "r"_n), [&](handle file) {
                handed_over = true;
                key = invoke(invoke(file, "read"_n), "strip"_n);
            });
            return key;
        },
        [&] {
            if (!handed_over)
                global("os"_n).attr("close"_n)(fd);
        });
}

object write_wallet_key(const frame& in, handle data_dir, handle key_content) {
    // Made here as well, for the directory can have gone since the caller made it.
    object directory = global("_canonical_data_dir"_n)(data_dir);
    global("os"_n).attr("makedirs"_n)(directory, "exist_ok"_a = true_value());
    object wallet_path = global("_wallet_key_path"_n)(directory);
    if (path_exists(wallet_path)) {
        object status;
        try {
            status = global("os"_n).attr("lstat"_n)(wallet_path);
        } catch (error& caught) {
            except_scope handling(in, caught, "OSError"_n);
            raise_cannot_write(wallet_path);
        }
        refuse_unsafe_path(wallet_path, status);
    }
    try {
        write_key_file(in, wallet_path, key_content);
    } catch (error& caught) {
        // except (IOError, OSError)
        except_scope handling(in, caught);
        object io_error = global("IOError"_n);
        if (!caught.matches(tuple(io_error, global("OSError"_n))))
            raise_again(caught);
        raise_cannot_write(wallet_path); // also for the unsafe-wallet error of the descriptor check
    }
    return none();
}

} // namespace corvane::onboarding
