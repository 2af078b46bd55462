// The program `corvane`: starts the command's interpreter, so that Ctrl-C is the command's from the beginning. Python
// takes milliseconds until a handler can be set, and Ctrl-C in that time would be a traceback or no word at all.
// Blocked, the signal waits until the command is ready for it: a process keeps its signal mask over execve (POSIX).
//
// PYTHON is the name of the interpreter that the command is installed for, such as python3.12.

#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The interpreter in the directory of this program, as in an environment or a prefix, links to it resolved.
std::string interpreter_beside() {
    std::array<char, PATH_MAX> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    const std::string self(path.data(), length > 0 ? static_cast<size_t>(length) : 0);
    return self.substr(0, self.rfind('/') + 1) + PYTHON;
}

} // namespace

int main(int count, char** arguments) {
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    sigprocmask(SIG_BLOCK, &interrupt, nullptr);

    // -P: no module is taken from the working directory.
    std::string python = interpreter_beside(), safe_path = "-P", run_module = "-m", package = "corvane_cli";
    std::vector<char*> command{python.data(), safe_path.data(), run_module.data(), package.data()};
    command.insert(command.end(), arguments + (count > 0 ? 1 : 0), arguments + count);
    command.push_back(nullptr);
    execv(python.c_str(), command.data());

    // Installed for one user, there is none beside it.
    python = PYTHON;
    command[0] = python.data();
    execvp(python.c_str(), command.data());
    static_cast<void>(std::fprintf(
        stderr, "Error: " PYTHON " cannot be started: %s.\nNext: install the command again.\n", std::strerror(errno)));
    constexpr int machine = 6; // Exit.MACHINE of the command
    return machine;
}
