// status_bench [--kills N] [--clients N]
//
// Measures what the status endpoint costs supervision: the time from the kill of one of 200
// services to the first instruction of its next process, with clients that ask for the whole status
// without pause and with none, in turn; and the processor time that the daemon spends meanwhile.
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "config/settings.h"
#include "wire/unique_fd.h"

namespace {

constexpr size_t SERVICES = 200;
// A process lives longer than a check period, or it would count as one that crashes in a loop.
constexpr std::chrono::milliseconds LIFE{60};
constexpr const char* STATUS_SOCKET = "/run/process-manager/status.sock";

void Require(bool isDone, const char* what) {
    if (!isDone) {
        std::perror(what);
        std::exit(1);
    }
}

// A private copy of /etc, with settings that switch the endpoint on.
void SwitchStatusOn() {
    namespace fs = std::filesystem;
    fs::copy("/etc", "/run/etc", fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    Require(mount("/run/etc", "/etc", nullptr, MS_BIND, nullptr) == 0, "mount /etc");
    fs::create_directories(fs::path(ProcMgr::SETTINGS_FILE).parent_path());
    FILE* file = std::fopen(ProcMgr::SETTINGS_FILE, "we");
    Require(file != nullptr, ProcMgr::SETTINGS_FILE);
    std::fputs("status:\n  enable: true\n", file);
    std::fclose(file);
}

// Asks once and reads the answer. False when the daemon did not answer.
bool Ask() {
    const Wire::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, STATUS_SOCKET);
    constexpr std::array REQUEST = {'s', 't', 'a', 't', 'u', 's', '\n'};
    if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        send(fd.Get(), REQUEST.data(), REQUEST.size(), MSG_NOSIGNAL) < 0) {
        return false;
    }
    std::vector<char> part(65536);
    ssize_t size = 0;
    char last = 0;
    while ((size = recv(fd.Get(), part.data(), part.size(), 0)) > 0) {
        last = part[static_cast<size_t>(size) - 1];
    }
    return last == '\n';
}

// Threads that ask without pause while they are switched on.
class Clients {
public:
    explicit Clients(int count) {
        for (int i = 0; i < count; ++i) {
            threads_.emplace_back([this] { Run(); });
        }
    }
    ~Clients() {
        isOver_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;

    void Switch(bool isOn) { isOn_ = isOn; }
    int GetAnswers() const { return answers_; }

private:
    void Run() {
        while (!isOver_) {
            if (!isOn_ || !Ask()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            } else {
                ++answers_;
            }
        }
    }

    std::atomic<bool> isOn_{false};
    std::atomic<bool> isOver_{false};
    std::atomic<int> answers_{0};
    std::vector<std::thread> threads_;
};

// Restart times, and the daemon's processor time as a share of the time that passed.
struct Result {
    std::vector<double> times;
    uint64_t used = 0;
    uint64_t passed = 0;
};

void KillOnce(const Bench::StampFile& stamps, pid_t daemon, size_t slot, Result& result) {
    const auto pid = static_cast<pid_t>(stamps.WaitForAll()[slot].pid);
    const uint64_t begin = Bench::Now();
    const uint64_t used = Bench::CpuTimeOf(daemon);
    std::this_thread::sleep_for(LIFE);
    const uint64_t start = Bench::Now();
    kill(pid, SIGKILL);
    uint64_t time = 0;
    while (time <= start) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        time = stamps.WaitForAll()[slot].time;
    }
    result.times.push_back(static_cast<double>(time - start) / 1e6);
    result.used += Bench::CpuTimeOf(daemon) - used;
    result.passed += Bench::Now() - begin;
}

void Print(const char* who, const Result& result) {
    std::printf("| %s | %.2f ms | %.2f ms | %.1f %% |\n", who, Bench::Median(result.times),
                Bench::Percentile(result.times, 95),
                100.0 * static_cast<double>(result.used) / static_cast<double>(result.passed));
}

void Measure(int kills, int clients) {
    Bench::StampFile stamps(SERVICES);
    std::ostringstream yaml;
    yaml << "services:\n";
    for (size_t i = 0; i < SERVICES; ++i) {
        yaml << "  - {name: service" << i << ", bin: " << STAMP_SERVICE << ", args: [\""
             << stamps.GetPath() << "\", \"" << i << "\"], restart: on-forever}\n";
    }
    const pid_t daemon =
        Bench::Spawn({PROCESS_MANAGER, Bench::WriteFile("platform.yaml", yaml.str())});
    stamps.WaitForAll();
    Require(Ask(), "the status endpoint");
    Result without;
    Result with;
    int answers = 0;
    {
        Clients asking(clients);
        for (int i = 0; i < kills; ++i) {
            const size_t slot = static_cast<size_t>(i) % SERVICES;
            KillOnce(stamps, daemon, slot, without);
            asking.Switch(true);
            KillOnce(stamps, daemon, slot, with);
            asking.Switch(false);
        }
        answers = asking.GetAnswers();
    }
    Bench::Stop(daemon);
    std::printf("| %d kills, %zu services | median | 95th percentile | daemon, of one core |\n",
                kills, SERVICES);
    std::printf("|---|---|---|---|\n");
    Print("no client", without);
    Print((std::to_string(clients) + " clients without pause").c_str(), with);
    std::printf("\n%d answers\n", answers);
}

}  // namespace

int main(int argc, char** argv) {
    const int kills = Bench::NumberOption(argc, argv, "--kills", 200);
    const int clients = Bench::NumberOption(argc, argv, "--clients", 12);
    Bench::EnterPrivateSystem(true);
    Bench::LayOutGroups();
    SwitchStatusOn();
    Measure(kills, clients);
    return 0;
}
