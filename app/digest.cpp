#include "app/digest.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <string_view>
#include <utility>

#include "main/common/daemon_signals.h"

namespace ProcMgr::App {
namespace {

constexpr size_t DIGEST_LENGTH = 64;
constexpr const char* SHELL = "/bin/sh";
constexpr int EXIT_NOT_EXECUTED = 127;
constexpr std::string_view PLAIN_CHARACTERS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._/+-@";

// The path, quoted for use as one argument in a shell command.
std::string ShellWord(const std::string& path) {
    if (path.find_first_not_of(PLAIN_CHARACTERS) == std::string::npos) {
        return path;
    }
    std::string word = "'";
    for (const char c : path) {
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return word + "'";
}

// Runs in the forked child, so it makes system calls only. The child leads a process group of its
// own, so that one signal reaches every process of the command.
[[noreturn]] void Execute(const char* command, int output) {
    setpgid(0, 0);
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (const int signal : CHANGED_SIGNALS) {
        sigaction(signal, &byDefault, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(output, STDOUT_FILENO);
    execl(SHELL, "sh", "-c", command, nullptr);
    _exit(EXIT_NOT_EXECUTED);
}

// Milliseconds from now to `end`, for poll; 0 when `end` has passed.
int LeftUntil(SteadyTime end) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
}

}  // namespace

DigestRunner::DigestRunner() : cancelFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void DigestRunner::Cancel() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(cancelFd_.Get(), &one, sizeof(one));
}

bool DigestRunner::TakeExit(int32_t pid) {
    const LockGuard lock(mutex_);
    return commands_.erase(pid) > 0;
}

DigestRunner::Result DigestRunner::Run(const std::string& path, SteadyTime end) {
    MayWait("sha256sum");
    Wire::UniqueFd output;
    const pid_t pid = Start("sha256sum " + ShellWord(path) + "|cut -d' ' -f1", output);
    if (pid < 0) {
        return {Outcome::NOT_STARTED, {}, errno};
    }
    Result result = ReadLine(output.Get(), end);
    output.Reset();
    if (result.outcome != Outcome::TAKEN) {
        KillGroup(pid);
    }
    return result;
}

pid_t DigestRunner::Start(const std::string& command, Wire::UniqueFd& output) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    output = Wire::UniqueFd(ends[0]);
    const Wire::UniqueFd input(ends[1]);
    pid_t pid = -1;
    {
        // The lock is held over the fork, so that the set has the pid before the reaper asks for
        // it. The set's node is allocated before the fork: no exception may follow it.
        const LockGuard lock(mutex_);
        std::set<pid_t> prepared{0};
        auto node = prepared.extract(prepared.begin());
        pid = fork();
        if (pid == 0) {
            Execute(command.c_str(), ends[1]);
        }
        if (pid > 0) {
            // Parent and child both make the group: it exists before any thread can kill it,
            // whichever of the two runs first.
            setpgid(pid, pid);
            node.value() = pid;
            commands_.insert(std::move(node));
        }
    }
    return pid;
}

DigestRunner::Result DigestRunner::ReadLine(int output, SteadyTime end) const {
    Result result;
    for (;;) {
        std::array<pollfd, 2> fds = {pollfd{output, POLLIN, 0}, pollfd{cancelFd_.Get(), POLLIN, 0}};
        const int ready = poll(fds.data(), fds.size(), LeftUntil(end));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0 || fds[1].revents != 0) {
            result.outcome = ready <= 0 ? Outcome::TOO_LONG : Outcome::CANCELLED;
            return result;
        }
        std::array<char, DIGEST_LENGTH> bytes{};
        const ssize_t got = read(output, bytes.data(), DIGEST_LENGTH - result.digest.size());
        result.digest.append(bytes.data(), static_cast<size_t>(std::max<ssize_t>(got, 0)));
        const size_t lineEnd = result.digest.find('\n');
        if (got <= 0 || lineEnd != std::string::npos || result.digest.size() == DIGEST_LENGTH) {
            const bool isTaken = !result.digest.empty();
            result.outcome = isTaken ? Outcome::TAKEN : Outcome::NOTHING;
            return result;
        }
    }
}

// Does nothing for a command that has been reaped: its pid may belong to another process.
void DigestRunner::KillGroup(pid_t pid) {
    const LockGuard lock(mutex_);
    if (commands_.contains(pid)) {
        kill(-pid, SIGKILL);
    }
}

}  // namespace ProcMgr::App
