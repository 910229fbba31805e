// restart_bench [--kills N] [--runs N]
//
// Measures restarts: the time from the kill of a service to the first instruction of the restarted
// service's main, compared with a process that only waits and respawns, in the same run; and the
// time until 200 services that are killed at once all run again, compared with a bare posix_spawn
// loop of 200.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"

namespace {

// A process lives this long before it is killed: longer than a check period of the daemon, which
// takes an earlier death for a crash loop.
constexpr std::chrono::milliseconds LIFE{60};

pid_t StartDaemon(size_t services, const Bench::StampFile& stamps) {
    std::ostringstream yaml;
    yaml << "services:\n";
    for (size_t i = 0; i < services; ++i) {
        yaml << "  - {name: service" << i << ", bin: " << STAMP_SERVICE << ", args: [\""
             << stamps.GetPath() << "\", \"" << i << "\"], restart: on-forever}\n";
    }
    return Bench::Spawn({PROCESS_MANAGER, Bench::WriteFile("platform.yaml", yaml.str())});
}

pid_t SpawnService(size_t slot, const Bench::StampFile& stamps) {
    return Bench::Spawn({STAMP_SERVICE, stamps.GetPath(), std::to_string(slot)});
}

// Starts the minimal supervisor: a process that waits for its child and spawns the next.
pid_t StartRespawner(const Bench::StampFile& stamps) {
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    SpawnService(0, stamps);
    while (waitpid(-1, nullptr, 0) > 0) {
        SpawnService(0, stamps);
    }
    _exit(0);
}

// Kills the service and returns the milliseconds until its new start.
double KillOnce(const Bench::StampFile& stamps) {
    const auto pid = static_cast<pid_t>(stamps.WaitForAll().front().pid);
    std::this_thread::sleep_for(LIFE);
    const uint64_t start = Bench::Now();
    kill(pid, SIGKILL);
    return Bench::SinceStart(start, stamps.WaitForAll(start));
}

void Print(const char* who, const std::vector<double>& times) {
    std::printf("| %s | %.2f ms | %.2f ms |\n", who, Bench::Median(times),
                Bench::Percentile(times, 95));
}

void MeasureOne(int kills) {
    Bench::StampFile daemonStamps(1, "daemon-stamps");
    Bench::StampFile bareStamps(1, "bare-stamps");
    const pid_t daemon = StartDaemon(1, daemonStamps);
    const pid_t respawner = StartRespawner(bareStamps);
    std::vector<double> byDaemon;
    std::vector<double> byRespawner;
    // Alternately, so that both run under the same load of the machine.
    for (int i = 0; i < kills; ++i) {
        byDaemon.push_back(KillOnce(daemonStamps));
        byRespawner.push_back(KillOnce(bareStamps));
    }
    Bench::Stop(daemon);
    kill(respawner, SIGKILL);
    waitpid(respawner, nullptr, 0);
    kill(static_cast<pid_t>(bareStamps.WaitForAll().front().pid), SIGKILL);

    std::printf("| kill to restart, %d kills | median | 95th percentile |\n|---|---|---|\n", kills);
    Print("daemon", byDaemon);
    Print("bare waitpid and respawn", byRespawner);
    std::printf("\nratio of the medians: %.2f\n\n",
                Bench::Median(byDaemon) / Bench::Median(byRespawner));
    std::fflush(stdout);
}

double SpawnAll(size_t services, Bench::StampFile& stamps) {
    stamps.Clear();
    std::vector<pid_t> children;
    const uint64_t start = Bench::Now();
    for (size_t i = 0; i < services; ++i) {
        children.push_back(SpawnService(i, stamps));
    }
    const double time = Bench::SinceStart(start, stamps.WaitForAll());
    for (const pid_t child : children) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    return time;
}

void MeasureAll(size_t services, int runs) {
    Bench::StampFile stamps(services);
    std::vector<double> byDaemon;
    std::vector<double> bare;
    for (int run = 0; run < runs; ++run) {
        stamps.Clear();
        const pid_t daemon = StartDaemon(services, stamps);
        const std::vector<Bench::Stamp> running = stamps.WaitForAll();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const uint64_t start = Bench::Now();
        for (const Bench::Stamp& stamp : running) {
            kill(static_cast<pid_t>(stamp.pid), SIGKILL);
        }
        byDaemon.push_back(Bench::SinceStart(start, stamps.WaitForAll(start)));
        Bench::Stop(daemon);
        bare.push_back(SpawnAll(services, stamps));
    }
    std::printf(
        "%zu killed at once: all run again after %.1f ms; bare posix_spawn loop %.1f ms; "
        "ratio %.2f\n",
        services, Bench::Median(byDaemon), Bench::Median(bare),
        Bench::Median(byDaemon) / Bench::Median(bare));
}

}  // namespace

int main(int argc, char** argv) {
    const int kills = Bench::NumberOption(argc, argv, "--kills", 100);
    const int runs = Bench::NumberOption(argc, argv, "--runs", 7);
    Bench::EnterPrivateSystem(true);
    Bench::LayOutGroups();
    MeasureOne(kills);
    MeasureAll(200, runs);
    return 0;
}
