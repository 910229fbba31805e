#include "tests/support/daemon_harness.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <filesystem>
#include <thread>
#include <utility>

#include "tests/support/files.h"
#include "tests/support/private_mounts.h"
#include "tests/support/wait.h"
#include "wire/unique_fd.h"

namespace {

using ProcMgr::Tests::WriteFile;
using Wire::UniqueFd;

constexpr int EXIT_NO_NAMESPACE = 98;
constexpr int EXIT_NO_PROGRAM = 99;
constexpr const char* COMMAND_LINE = "/run/kernel-command-line";

// Process 1 of the namespace adopts orphans. It ends at the latest with the test.
[[noreturn]] void RunInit() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGCHLD, SIG_IGN);
    for (;;) {
        pause();
    }
}

// Runs between fork and exec, where only system calls are allowed because the test has threads.
[[noreturn]] void RunProgram(char* const* argv) {
    // A session of its own: a signal to the daemon's process group does not reach the test.
    if (setsid() < 0 || unshare(CLONE_NEWNS) != 0 ||
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0 ||
        mount(COMMAND_LINE, "/proc/cmdline", nullptr, MS_BIND, nullptr) != 0) {
        _exit(EXIT_NO_NAMESPACE);
    }
    syscall(SYS_close_range, 3, ~0U, 0);
    execv(argv[0], argv);
    _exit(EXIT_NO_PROGRAM);
}

std::vector<char*> Argv(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

// The raw wait status; nothing when the process has not ended within `timeout`.
std::optional<int> WaitFor(pid_t pid, std::chrono::milliseconds timeout) {
    int status = 0;
    const bool isEnded =
        ProcMgr::Tests::WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout);
    return isEnded ? std::optional(status) : std::nullopt;
}

}  // namespace

DaemonHarness::DaemonHarness(std::string program) : program_(std::move(program)) {
    if (geteuid() != 0) {
        error_ = "only root may make namespaces";
        return;
    }
    if (!EnterPrivateMountNamespace()) {
        error_ = "no private mount namespace here";
        return;
    }
    try {
        LayOut();
    } catch (const std::exception& failure) {
        error_ = failure.what();
    }
}

void DaemonHarness::LayOut() {
    log_ = std::make_unique<SyslogSink>();
    if (!log_->IsReady()) {
        error_ = log_->Error();
        return;
    }
    WriteFile("/dev/kmsg", "");
    MountTmpfs("/run");
    SetCommandLine("console=ttyAMA0 quiet");
    MountTmpfs("/sys/fs/cgroup");
    LayOutCgroups();
    BindFile("root:x:0:0:root:/root:/bin/sh\nsvc:x:1000:1000::/home/svc:/bin/sh\n", "/etc/passwd");
    BindFile("root:x:0:\nsvc:x:1000:\nextra:x:2000:svc\n", "/etc/group");
}

// The control groups that every device has, as plain files, so that tests can read what was
// written.
void DaemonHarness::LayOutCgroups() {
    const std::filesystem::path root = "/sys/fs/cgroup";
    std::string cores;
    for (unsigned core = 0; core < std::thread::hardware_concurrency(); ++core) {
        cores += (core == 0 ? "" : ",") + std::to_string(core);
    }
    for (const char* group : {"cpuset/CtrlCPU", "cpu/OTHER"}) {
        WriteFile(root / group / "tasks", "");
    }
    WriteFile(root / "cpuset/CtrlCPU/cpuset.cpus", cores);
}

void DaemonHarness::SetCommandLine(const std::string& text) {
    WriteFile(COMMAND_LINE, text + "\n");
}

DaemonHarness::~DaemonHarness() {
    KillAll();
}

bool DaemonHarness::Start(const std::vector<std::string>& arguments) {
    std::vector<char*> argv = Argv(program_, arguments);
    const UniqueFd own(open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC));
    if (!own.IsValid() || unshare(CLONE_NEWPID) != 0) {
        error_ = std::string("no PID namespace: ") + strerror(errno);
        return false;
    }
    status_.reset();
    init_ = fork();
    if (init_ == 0) {
        RunInit();
    }
    daemon_ = fork();
    if (daemon_ == 0) {
        RunProgram(argv.data());
    }
    // Later children of the test belong to its own namespace again.
    setns(own.Get(), CLONE_NEWPID);
    return init_ > 0 && daemon_ > 0;
}

void DaemonHarness::Signal(int signal) const {
    if (daemon_ > 0 && !status_) {
        kill(daemon_, signal);
    }
}

bool DaemonHarness::IsRunning() {
    return daemon_ > 0 && !WaitForExit(std::chrono::milliseconds(0));
}

std::optional<int> DaemonHarness::RunAgain(const std::vector<std::string>& arguments,
                                           std::chrono::milliseconds timeout) const {
    std::vector<char*> argv = Argv(program_, arguments);
    const std::string inside = "/proc/" + std::to_string(init_) + "/ns/pid";
    const UniqueFd own(open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC));
    const UniqueFd other(open(inside.c_str(), O_RDONLY | O_CLOEXEC));
    if (setns(other.Get(), CLONE_NEWPID) != 0) {
        return std::nullopt;
    }
    const pid_t second = fork();
    if (second == 0) {
        RunProgram(argv.data());
    }
    setns(own.Get(), CLONE_NEWPID);
    const auto status = WaitFor(second, timeout);
    if (second > 0 && !status) {
        kill(second, SIGKILL);
        waitpid(second, nullptr, 0);
    }
    return status;
}

std::optional<int> DaemonHarness::WaitForExit(std::chrono::milliseconds timeout) {
    if (!status_ && daemon_ > 0) {
        status_ = WaitFor(daemon_, timeout);
    }
    return status_;
}

void DaemonHarness::KillAll() {
    if (init_ > 0) {
        kill(init_, SIGKILL);
    }
    // Process 1 of the namespace does not end before the daemon has been reaped.
    if (daemon_ > 0 && !status_) {
        waitpid(daemon_, nullptr, 0);
    }
    if (init_ > 0) {
        waitpid(init_, nullptr, 0);
    }
    init_ = daemon_ = -1;
}
