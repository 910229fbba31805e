#include "tests/support/daemon_harness.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <thread>
#include <utility>

#include "tests/support/files.h"
#include "tests/support/private_mounts.h"
#include "wire/unique_fd.h"

namespace {

using ProcMgr::Tests::Child;
using ProcMgr::Tests::WaitUntil;
using ProcMgr::Tests::WriteFile;
using Wire::UniqueFd;

constexpr int EXIT_NO_NAMESPACE = 98;
constexpr int EXIT_NO_PROGRAM = 99;
constexpr const char* COMMAND_LINE = "/run/kernel-command-line";

// Process 1 of the namespace adopts orphans.
int RunInit() {
    signal(SIGCHLD, SIG_IGN);
    return ProcMgr::Tests::Pause();
}

// Runs between fork and exec, where only system calls are allowed because the test has threads.
int RunProgram(char* const* argv) {
    // A session of its own: a signal to the daemon's process group does not reach the test.
    if (setsid() < 0 || unshare(CLONE_NEWNS) != 0 ||
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0 ||
        mount(COMMAND_LINE, "/proc/cmdline", nullptr, MS_BIND, nullptr) != 0) {
        return EXIT_NO_NAMESPACE;
    }
    syscall(SYS_close_range, 3, ~0U, 0);
    execv(argv[0], argv);
    return EXIT_NO_PROGRAM;
}

Child StartProgram(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    return Child([&] { return RunProgram(argv.data()); });
}

std::optional<int> WaitFor(Child& child, std::chrono::milliseconds patience) {
    const bool isEnded = WaitUntil([&] { return !child.IsRunning(); }, patience);
    return isEnded ? std::optional(child.Wait()) : std::nullopt;
}

// A PID namespace, by the process that runs in it.
UniqueFd OpenNamespace(const std::string& process) {
    return UniqueFd(open(("/proc/" + process + "/ns/pid").c_str(), O_RDONLY | O_CLOEXEC));
}

}  // namespace

DaemonHarness::DaemonHarness(std::string program) : program_(std::move(program)) {
    try {
        Require(EnterPrivateMountNamespace(), "no private mount namespace");
        LayOut();
    } catch (const std::exception& failure) {
        error_ = failure.what();
    }
}

void DaemonHarness::LayOut() {
    log_ = std::make_unique<SyslogSink>();
    WriteFile("/dev/kmsg", "");
    MountTmpfs("/run");
    SetCommandLine("console=ttyAMA0 quiet");
    MountTmpfs("/sys/fs/cgroup");
    for (const char* group : {"cpuset/CtrlCPU", "cpu/OTHER"}) {
        WriteFile(std::string("/sys/fs/cgroup/") + group + "/tasks", "");
    }
    std::string cores = "0";
    for (unsigned core = 1; core < std::thread::hardware_concurrency(); ++core) {
        cores += "," + std::to_string(core);
    }
    WriteFile("/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus", cores);
    BindFile("root:x:0:0:root:/root:/bin/sh\nsvc:x:1000:1000::/home/svc:/bin/sh\n", "/etc/passwd");
    BindFile("root:x:0:\nsvc:x:1000:\nextra:x:2000:svc\n", "/etc/group");
}

void DaemonHarness::SetCommandLine(const std::string& text) {
    WriteFile(COMMAND_LINE, text + "\n");
}

DaemonHarness::~DaemonHarness() {
    KillAll();
    log_.reset();
    UnmountAll();
}

void DaemonHarness::Start(const std::vector<std::string>& arguments) {
    const UniqueFd own = OpenNamespace("self");
    Require(unshare(CLONE_NEWPID) == 0, "no PID namespace");
    init_.emplace(RunInit);
    daemon_.emplace(StartProgram(program_, arguments));
    // Later children of the test belong to its own namespace again.
    setns(own.Get(), CLONE_NEWPID);
}

std::optional<int> DaemonHarness::RunAgain(const std::vector<std::string>& arguments) const {
    const UniqueFd own = OpenNamespace("self");
    Require(setns(OpenNamespace(std::to_string(init_->Pid())).Get(), CLONE_NEWPID) == 0, "setns");
    Child second = StartProgram(program_, arguments);
    setns(own.Get(), CLONE_NEWPID);
    return WaitFor(second, ProcMgr::Tests::PATIENCE);
}

void DaemonHarness::Signal(int signal) const {
    if (IsRunning()) {
        kill(GetPid(), signal);
    }
}

std::optional<int> DaemonHarness::WaitForExit(std::chrono::milliseconds patience) {
    return WaitFor(*daemon_, patience);
}

void DaemonHarness::KillAll() {
    if (init_) {
        kill(init_->Pid(), SIGKILL);
    }
    // Process 1 of the namespace does not end before the daemon has been reaped.
    daemon_.reset();
    init_.reset();
}
