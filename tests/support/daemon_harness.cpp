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
#include <fstream>
#include <thread>
#include <utility>

#include "tests/support/private_mounts.h"

namespace {

constexpr int EXIT_NO_NAMESPACE = 98;
constexpr int EXIT_NO_PROGRAM = 99;
constexpr const char* COMMAND_LINE = "/run/kernel-command-line";

// Process 1 takes over orphans. It must not outlive the test, however that ends.
[[noreturn]] void RunInit() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGCHLD, SIG_IGN);
    for (;;) {
        pause();
    }
}

// Between fork and exec: system calls only, the test has threads.
[[noreturn]] void RunProgram(char* const* argv) {
    // A session of its own: what signals its whole group does not meet the test.
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

// The raw wait status; nothing when the process has not ended in time.
std::optional<int> WaitFor(pid_t pid, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return status;
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
    std::ofstream("/dev/kmsg", std::ios::trunc).flush();
    MountTmpfs("/run");
    SetCommandLine("console=ttyAMA0 quiet");
    MountTmpfs("/sys/fs/cgroup");
    LayOutCgroups();
    BindFile("root:x:0:0:root:/root:/bin/sh\nsvc:x:1000:1000::/home/svc:/bin/sh\n", "/etc/passwd");
    BindFile("root:x:0:\nsvc:x:1000:\nextra:x:2000:svc\n", "/etc/group");
}

// The groups that every device has, as plain files: what is written to them can be read.
void DaemonHarness::LayOutCgroups() {
    const std::filesystem::path root = "/sys/fs/cgroup";
    for (const char* group : {"cpuset/CtrlCPU", "cpu/OTHER"}) {
        std::filesystem::create_directories(root / group);
        std::ofstream(root / group / "tasks").flush();
    }
    std::ofstream cores(root / "cpuset/CtrlCPU/cpuset.cpus");
    for (unsigned core = 0; core < std::thread::hardware_concurrency(); ++core) {
        cores << (core == 0 ? "" : ",") << core;
    }
}

void DaemonHarness::SetCommandLine(const std::string& text) {
    std::ofstream(COMMAND_LINE) << text << "\n";
}

DaemonHarness::~DaemonHarness() {
    KillAll();
}

bool DaemonHarness::Start(const std::vector<std::string>& arguments) {
    std::vector<char*> argv = Argv(program_, arguments);
    const int own = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
    if (own < 0 || unshare(CLONE_NEWPID) != 0) {
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
    // What the test starts from here on is in its own namespace again.
    setns(own, CLONE_NEWPID);
    close(own);
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
    const int own = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
    const std::string path = "/proc/" + std::to_string(init_) + "/ns/pid";
    const int inside = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::optional<int> status;
    if (setns(inside, CLONE_NEWPID) == 0) {
        const pid_t second = fork();
        if (second == 0) {
            RunProgram(argv.data());
        }
        setns(own, CLONE_NEWPID);
        status = second > 0 ? WaitFor(second, timeout) : std::nullopt;
        if (second > 0 && !status) {
            kill(second, SIGKILL);
            waitpid(second, nullptr, 0);
        }
    }
    close(inside);
    close(own);
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
    // Process 1 does not end before the daemon has been waited for.
    if (daemon_ > 0 && !status_) {
        waitpid(daemon_, nullptr, 0);
    }
    if (init_ > 0) {
        waitpid(init_, nullptr, 0);
    }
    init_ = daemon_ = -1;
}
