// boot_bench [--runs N] [--no-logger]
//
// Measures the boot: the time from the exec of the daemon to the first instruction of the last
// service's main, for 10, 100 and 500 independent services and a chain of 50, compared with a bare
// posix_spawn loop of the same program in the same run. Then measures memory and idle processor
// time of the daemon with 500 services.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"

namespace {

constexpr double MILLISECOND = 1e6;
constexpr int IDLE_SECONDS = 10;

struct Platform {
    size_t services;
    bool isChain;
};

std::string MakeManifest(const Platform& platform, const std::string& stamps) {
    std::ostringstream yaml;
    yaml << "services:\n";
    for (size_t i = 0; i < platform.services; ++i) {
        yaml << "  - name: service" << i << "\n    bin: " << STAMP_SERVICE << "\n    args: [\""
             << stamps << "\", \"" << i << "\"]\n";
        if (platform.isChain && i > 0) {
            yaml << "    depends: [service" << i - 1 << "]\n";
        }
    }
    return Bench::WriteFile("platform.yaml", yaml.str());
}

double BootDaemon(const std::string& manifest, Bench::StampFile& stamps) {
    stamps.Clear();
    const uint64_t start = Bench::Now();
    const pid_t daemon = Bench::Spawn({PROCESS_MANAGER, manifest});
    const double time = Bench::SinceStart(start, stamps.WaitForAll());
    Bench::Stop(daemon);
    return time;
}

double BootBare(size_t services, Bench::StampFile& stamps) {
    stamps.Clear();
    std::vector<pid_t> children;
    const uint64_t start = Bench::Now();
    for (size_t i = 0; i < services; ++i) {
        children.push_back(Bench::Spawn({STAMP_SERVICE, stamps.GetPath(), std::to_string(i)}));
    }
    const double time = Bench::SinceStart(start, stamps.WaitForAll());
    for (const pid_t child : children) {
        kill(child, SIGKILL);
    }
    for (const pid_t child : children) {
        waitpid(child, nullptr, 0);
    }
    return time;
}

void MeasureBoot(const Platform& platform, int runs) {
    Bench::StampFile stamps(platform.services);
    const std::string manifest = MakeManifest(platform, stamps.GetPath());
    std::vector<double> daemon;
    std::vector<double> bare;
    for (int run = 0; run < runs; ++run) {
        daemon.push_back(BootDaemon(manifest, stamps));
        bare.push_back(BootBare(platform.services, stamps));
    }
    std::printf("| %s of %zu | %.1f ms | %.1f ms | %.2f |\n",
                platform.isChain ? "chain" : "independent", platform.services,
                Bench::Median(daemon), Bench::Median(bare),
                Bench::Median(daemon) / Bench::Median(bare));
    std::fflush(stdout);
}

void MeasureRest(size_t services) {
    Bench::StampFile stamps(services);
    const std::string manifest = MakeManifest({services, false}, stamps.GetPath());
    const pid_t daemon = Bench::Spawn({PROCESS_MANAGER, manifest});
    stamps.WaitForAll();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const uint64_t before = Bench::CpuTimeOf(daemon);
    std::this_thread::sleep_for(std::chrono::seconds(IDLE_SECONDS));
    const double idle = static_cast<double>(Bench::CpuTimeOf(daemon) - before) / MILLISECOND;
    std::printf("\nWith %zu services: PSS %.2f MiB, %.1f ms of processor time in %d idle seconds\n",
                services, static_cast<double>(Bench::PssOf(daemon)) / 1024.0, idle, IDLE_SECONDS);
    Bench::Stop(daemon);
}

}  // namespace

int main(int argc, char** argv) {
    int runs = 11;
    bool withLogger = true;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--no-logger") == 0) {
            withLogger = false;
        } else if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
            runs = static_cast<int>(std::strtol(argv[++i], nullptr, 10));
        } else {
            std::fprintf(stderr, "usage: boot_bench [--runs N] [--no-logger]\n");
            return 2;
        }
    }
    Bench::EnterPrivateSystem(withLogger);
    Bench::LayOutGroups();
    std::printf("| services | daemon | bare loop | ratio |\n|---|---|---|---|\n");
    for (const Platform& platform :
         {Platform{10, false}, Platform{100, false}, Platform{500, false}, Platform{50, true}}) {
        MeasureBoot(platform, runs);
    }
    MeasureRest(500);
    return 0;
}
