// placement_bench [--runs N] [--seconds N]
//
// Measures placement: the time that configured control groups and cores add to the launch of a
// service, in real first-version control groups; then the processor time of the daemon's periodic
// checks with priority applications of 8 threads each, compared with as many base services, which
// are not checked.
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"

namespace {

namespace fs = std::filesystem;

constexpr double MILLISECOND = 1e6;
constexpr double PERCENT_OF_SECOND = 1e7;  // nanoseconds
constexpr size_t SERVICES = 200;
constexpr size_t APPS = 500;
constexpr size_t THREADS = 8;
constexpr std::chrono::seconds PATIENCE{60};
constexpr std::chrono::milliseconds LOOK{5};
// Several check periods.
constexpr std::chrono::seconds SETTLING{3};

struct Options {
    int runs = 11;
    int seconds = 20;
};

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

template <typename Condition>
bool WaitUntil(const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(LOOK);
    }
    return true;
}

// The path where the daemon expects a group.
fs::path PlaceOf(const std::string& controller, const std::string& group) {
    return fs::path("/sys/fs/cgroup") / controller / group;
}

size_t CountLines(const fs::path& path) {
    std::ifstream file(path);
    return static_cast<size_t>(std::count(std::istreambuf_iterator<char>(file), {}, '\n'));
}

// This program's group of a controller, as a path from the root of the hierarchy; empty without
// such a hierarchy.
std::string OwnGroupOf(const std::string& controller) {
    std::ifstream file("/proc/self/cgroup");
    std::string id;
    std::string controllers;
    std::string path;
    while (std::getline(file, id, ':') && std::getline(file, controllers, ':') &&
           std::getline(file, path)) {
        if (("," + controllers + ",").find("," + controller + ",") != std::string::npos) {
            return path;
        }
    }
    return {};
}

// The groups of the measurement. They are made below the groups that this program is in, so that
// the limits of those still apply.
class ControlGroups {
public:
    // There is no AICPU, because all cores are in CtrlCPU.
    ControlGroups() {
        Make("cpu", {"OTHER", "bench"});
        Make("cpuset", {"CtrlCPU", "bench"});
        Make("memory", {"bench"});
    }
    // All processes in the groups must have ended.
    ~ControlGroups() {
        for (; !made_.empty(); made_.pop_back()) {
            if (!WaitUntil([this] { return rmdir(made_.back().c_str()) == 0; })) {
                std::perror(made_.back().c_str());
            }
        }
    }
    ControlGroups(const ControlGroups&) = delete;
    ControlGroups& operator=(const ControlGroups&) = delete;

    // The reason why the groups could not be made; empty when they exist.
    const std::string& GetError() const { return error_; }

    // Mounts the groups over the roots of their hierarchies. Needs a private mount namespace.
    void Show() const {
        for (const auto& [controller, root] : roots_) {
            const fs::path place = PlaceOf(controller, "");
            if (mount(root.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) != 0) {
                Fail("mount " + place.string() + ": " + strerror(errno));
            }
        }
    }

private:
    void Make(const std::string& controller, const std::vector<std::string>& groups) {
        const std::string own = OwnGroupOf(controller);
        if (error_.empty() && own.empty()) {
            error_ = "no first-version control groups for " + controller;
        }
        const fs::path parent = PlaceOf(controller, "") / fs::path(own).relative_path();
        const fs::path root = parent / ("placement-bench-" + std::to_string(getpid()));
        roots_[controller] = root;
        MakeOne(root, parent, controller);
        for (const std::string& group : groups) {
            MakeOne(root / group, root, controller);
        }
    }
    void MakeOne(const fs::path& group, const fs::path& parent, const std::string& controller) {
        if (!error_.empty()) {
            return;
        }
        if (mkdir(group.c_str(), 0755) != 0) {
            error_ = group.string() + ": " + strerror(errno);
            return;
        }
        made_.push_back(group);
        if (controller == "cpuset") {
            // A cpuset group without memory nodes and cores accepts no process.
            for (const char* file : {"cpuset.mems", "cpuset.cpus"}) {
                std::ofstream(group / file) << std::ifstream(parent / file).rdbuf();
            }
        }
    }

    std::string error_;
    std::map<std::string, fs::path> roots_;  // by controller
    std::vector<fs::path> made_;             // directories, parents first
};

// The cores that this program may use.
std::vector<int> GetCores() {
    cpu_set_t allowed{};
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) {
        Fail("sched_getaffinity");
    }
    std::vector<int> cores;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &allowed)) {
            cores.push_back(core);
        }
    }
    return cores;
}

struct Placement {
    const char* name;
    bool hasGroups;
    bool hasCore;
};
constexpr std::array PLACEMENTS = {
    Placement{"none", false, false},
    Placement{"three control groups", true, false},
    Placement{"three control groups and one core", true, true},
};

std::string MakeServices(const Placement& placement, const std::string& stamps) {
    const std::vector<int> cores = GetCores();
    std::ostringstream yaml;
    yaml << "services:\n";
    for (size_t i = 0; i < SERVICES; ++i) {
        yaml << "  - name: service" << i << "\n    bin: " << STAMP_SERVICE << "\n    args: [\""
             << stamps << "\", \"" << i << "\"]\n";
        if (placement.hasGroups) {
            yaml << "    resource_group: bench\n    cpuset: bench\n    cgroups: {memory: bench}\n";
        }
        if (placement.hasCore) {
            yaml << "    core_affinity: [" << cores.at(i % cores.size()) << "]\n";
        }
    }
    return Bench::WriteFile("platform.yaml", yaml.str());
}

// Ends the program unless all services are in their groups and on their cores.
void CheckPlaces(const Placement& placement, const std::vector<Bench::Stamp>& stamps) {
    for (const char* controller : {"cpu", "cpuset", "memory"}) {
        const size_t found = CountLines(PlaceOf(controller, "bench") / "tasks");
        if (found != (placement.hasGroups ? stamps.size() : 0)) {
            Fail(std::to_string(found) + " services in the group of " + controller);
        }
    }
    const size_t cores = placement.hasCore ? 1 : GetCores().size();
    for (const Bench::Stamp& stamp : stamps) {
        cpu_set_t mask{};
        if (sched_getaffinity(static_cast<pid_t>(stamp.pid), sizeof(mask), &mask) != 0 ||
            static_cast<size_t>(CPU_COUNT(&mask)) != cores) {
            Fail("a service is not on its configured cores");
        }
    }
}

double StartServices(const Placement& placement, Bench::StampFile& stamps) {
    const std::string manifest = MakeServices(placement, stamps.GetPath());
    stamps.Clear();
    const uint64_t start = Bench::Now();
    const pid_t daemon = Bench::Spawn({PROCESS_MANAGER, manifest});
    const std::vector<Bench::Stamp> started = stamps.WaitForAll();
    CheckPlaces(placement, started);
    Bench::Stop(daemon);
    return Bench::SinceStart(start, started);
}

void MeasureLaunch(const Options& options) {
    Bench::StampFile stamps(SERVICES);
    std::array<std::vector<double>, PLACEMENTS.size()> times;
    std::array<std::vector<double>, PLACEMENTS.size()>
        added;  // relative to the first placement of the run
    for (int run = 0; run < options.runs; ++run) {
        // Each placement is the first one of a run in turn.
        const auto first = static_cast<size_t>(run) % PLACEMENTS.size();
        for (size_t i = 0; i < PLACEMENTS.size(); ++i) {
            const size_t next = (first + i) % PLACEMENTS.size();
            times[next].push_back(StartServices(PLACEMENTS[next], stamps));
        }
        for (size_t i = 0; i < PLACEMENTS.size(); ++i) {
            added[i].push_back((times[i].back() - times[0].back()) / SERVICES);
        }
    }
    std::printf("| %zu services, %d runs | start of all | added to a launch |\n|---|---|---|\n",
                SERVICES, options.runs);
    for (size_t i = 0; i < PLACEMENTS.size(); ++i) {
        std::printf("| %s | %.1f ms | %.3f ms |\n", PLACEMENTS[i].name, Bench::Median(times[i]),
                    Bench::Median(added[i]));
    }
    std::fflush(stdout);
}

size_t CountThreads(pid_t pid) {
    const fs::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// The processor time of the daemon in nanoseconds while it only does its periodic checks.
uint64_t MeasureIdle(bool isPriority, bool hasGroups, const Options& options) {
    Bench::StampFile stamps(APPS);
    std::ostringstream yaml;
    yaml << (isPriority ? "applications:\n" : "services:\n");
    for (size_t i = 0; i < APPS; ++i) {
        yaml << "  - {name: app" << i << ", bin: " << STAMP_SERVICE << ", args: [\""
             << stamps.GetPath() << "\", \"" << i << "\", \"" << THREADS << "\"]"
             << (isPriority ? ", startup_priority: 0" : "") << "}\n";
    }
    const pid_t daemon =
        Bench::Spawn({PROCESS_MANAGER, Bench::WriteFile("platform.yaml", yaml.str())});
    stamps.WaitForAll();
    // Priority applications are started before the daemon has placed itself; the periodic check
    // places them.
    const auto arePlaced = [&] {
        const size_t all = APPS * THREADS + CountThreads(daemon);
        return CountLines(PlaceOf("cpu", "OTHER") / "tasks") == all &&
               CountLines(PlaceOf("cpuset", "CtrlCPU") / "tasks") == all;
    };
    if (hasGroups && !WaitUntil(arePlaced)) {
        Fail("not all threads have been placed");
    }
    std::this_thread::sleep_for(SETTLING);
    const uint64_t before = Bench::CpuTimeOf(daemon);
    std::this_thread::sleep_for(std::chrono::seconds(options.seconds));
    const uint64_t used = Bench::CpuTimeOf(daemon) - before;
    Bench::Stop(daemon);
    return used;
}

void MeasureChecks(bool hasGroups, const Options& options) {
    std::printf("\n| %zu with %zu threads each | in %d s | of one core |\n|---|---|---|\n", APPS,
                THREADS, options.seconds);
    for (const bool isPriority : {true, false}) {
        const auto used = static_cast<double>(MeasureIdle(isPriority, hasGroups, options));
        std::printf("| %s | %.1f ms | %.2f %% |\n",
                    isPriority ? "priority applications" : "base services", used / MILLISECOND,
                    used / options.seconds / PERCENT_OF_SECOND);
        std::fflush(stdout);
    }
}

// Runs in the first process of a PID namespace, so that its children end with it.
[[noreturn]] void Measure(const ControlGroups& groups, const Options& options) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Bench::EnterPrivateSystem(true);
    if (mount("proc", "/proc", "proc", 0, nullptr) != 0) {
        Fail("mount /proc");
    }
    const bool hasGroups = groups.GetError().empty();
    if (hasGroups) {
        groups.Show();
        MeasureLaunch(options);
    } else {
        std::printf("launches left out: %s\n", groups.GetError().c_str());
        // Hides the groups of the machine from the daemon.
        mount("tmpfs", "/sys/fs/cgroup", "tmpfs", 0, nullptr);
    }
    MeasureChecks(hasGroups, options);
    std::exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    options.runs = Bench::NumberOption(argc, argv, "--runs", options.runs);
    options.seconds = Bench::NumberOption(argc, argv, "--seconds", options.seconds);
    // Taken by sigwait below, so that the groups are removed at each of these signals.
    sigset_t signals;
    sigset_t before;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD}) {
        sigaddset(&signals, signal);
    }
    sigprocmask(SIG_BLOCK, &signals, &before);
    const ControlGroups groups;
    const pid_t worker = unshare(CLONE_NEWPID) == 0 ? fork() : -1;
    if (worker == 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        Measure(groups, options);
    }
    if (worker < 0) {
        std::perror("PID namespace (root is needed)");
        return 1;
    }
    int signal = 0;
    sigwait(&signals, &signal);
    if (signal != SIGCHLD) {
        kill(worker, SIGKILL);
    }
    int status = 0;
    waitpid(worker, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
