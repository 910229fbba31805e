#include "bench/bench_support.h"

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace Bench {
namespace {

constexpr const char* WORK_DIR = "/run/bench";
constexpr double MILLISECOND = 1e6;
constexpr uint64_t NANOSECONDS = 1'000'000'000;

[[noreturn]] void Fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// Starts a process that reads everything that is sent to /dev/log.
void StartLogger() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "/dev/log");
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        Fail("bind /dev/log");
    }
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::array<char, 8192> line{};
        while (recv(fd, line.data(), line.size(), 0) >= 0) {
        }
        _exit(0);
    }
    close(fd);
}

}  // namespace

int NumberOption(int argc, char** argv, std::string_view name, int byDefault) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (name == argv[i]) {
            return static_cast<int>(std::strtol(argv[i + 1], nullptr, 10));
        }
    }
    return byDefault;
}

uint64_t Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * NANOSECONDS + static_cast<uint64_t>(now.tv_nsec);
}

StampFile::StampFile(size_t slots, const std::string& name)
    : slots_(slots), path_(WriteFile(name, "")), fd_(open(path_.c_str(), O_RDWR | O_CLOEXEC)) {
    Clear();
}

StampFile::~StampFile() {
    close(fd_);
}

void StampFile::Clear() {
    const auto size = static_cast<off_t>(slots_ * sizeof(Stamp));
    if (ftruncate(fd_, 0) != 0 || ftruncate(fd_, size) != 0) {
        Fail("ftruncate");
    }
}

std::vector<Stamp> StampFile::Read() const {
    std::vector<Stamp> stamps(slots_);
    const size_t size = slots_ * sizeof(Stamp);
    if (pread(fd_, stamps.data(), size, 0) != static_cast<ssize_t>(size)) {
        Fail("pread");
    }
    return stamps;
}

std::vector<Stamp> StampFile::WaitForAll(uint64_t since) const {
    const uint64_t deadline = Now() + 60 * NANOSECONDS;
    for (;;) {
        std::vector<Stamp> stamps = Read();
        if (std::all_of(stamps.begin(), stamps.end(),
                        [since](const Stamp& stamp) { return stamp.time > since; })) {
            return stamps;
        }
        if (Now() > deadline) {
            std::fprintf(stderr, "a service has not started within 60 s\n");
            std::exit(1);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void EnterPrivateSystem(bool withLogger) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        Fail("mount namespace (root is needed)");
    }
    std::filesystem::create_directories("/run");
    if (mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") != 0) {
        Fail("mount /run");
    }
    if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) {
        Fail("mount /dev");
    }
    // The devices that a service may open.
    mknod("/dev/null", S_IFCHR | 0666, 0x103);
    mknod("/dev/zero", S_IFCHR | 0666, 0x105);
    mknod("/dev/urandom", S_IFCHR | 0666, 0x109);
    if (withLogger) {
        StartLogger();
    }
}

void LayOutGroups() {
    const std::filesystem::path root = "/sys/fs/cgroup";
    if (mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=0755") != 0) {
        Fail("mount /sys/fs/cgroup");
    }
    for (const char* group : {"cpuset/CtrlCPU", "cpu/OTHER"}) {
        std::filesystem::create_directories(root / group);
        std::ofstream(root / group / "tasks").flush();
    }
    std::ofstream cores(root / "cpuset/CtrlCPU/cpuset.cpus");
    for (unsigned core = 0; core < std::thread::hardware_concurrency(); ++core) {
        cores << (core == 0 ? "" : ",") << core;
    }
}

pid_t Spawn(const std::vector<std::string>& command) {
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (const std::string& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        Fail("posix_spawn");
    }
    return pid;
}

int Stop(pid_t pid) {
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

std::string WriteFile(const std::string& name, const std::string& text) {
    std::filesystem::create_directories(WORK_DIR);
    std::string path = std::string(WORK_DIR) + "/" + name;
    std::ofstream(path) << text;
    return path;
}

double SinceStart(uint64_t start, const std::vector<Stamp>& stamps) {
    const auto last = std::max_element(
        stamps.begin(), stamps.end(),
        [](const Stamp& one, const Stamp& other) { return one.time < other.time; });
    return static_cast<double>(last->time - start) / MILLISECOND;
}

double Percentile(std::vector<double> values, double percent) {
    std::sort(values.begin(), values.end());
    const double rank = percent / 100.0 * static_cast<double>(values.size() - 1);
    return values.at(static_cast<size_t>(std::lround(rank)));
}

double Median(std::vector<double> values) {
    return Percentile(std::move(values), 50.0);
}

long PssOf(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    std::string word;
    long pss = 0;
    while (file >> word) {
        if (word == "Pss:") {
            file >> pss;
            return pss;
        }
    }
    return -1;
}

uint64_t CpuTimeOf(pid_t pid) {
    uint64_t total = 0;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        uint64_t onCpu = 0;
        std::ifstream(task.path() / "schedstat") >> onCpu;
        total += onCpu;
    }
    return total;
}

}  // namespace Bench
