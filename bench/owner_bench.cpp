// owner_bench [--runs N]
//
// Measures the times that an owner waits: from its start request to the first instruction of the
// application's main, compared with a bare fork and exec of the same program in the same run; from
// the death of an application to the report; from a query of 100 names to the answer.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "agent/codec.h"
#include "bench/bench_support.h"

namespace {

using ProcMgr::Message::RequestMsg;

constexpr double MILLISECOND = 1e6;
// A process lives this long before it is killed: longer than a check period of the daemon, which
// takes an earlier death for a crash loop.
constexpr std::chrono::milliseconds LIFE{60};
constexpr int NAMES = 100;

// The connection of an owner to its pipe. Any failure ends the program.
class Owner {
public:
    explicit Owner(const std::string& name)
        : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        const std::string path = ProcMgr::Agent::PipePath(name);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        while (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        Send(ProcMgr::Message::BASESERVICE_STATE_REPORT, "1#2#");
    }
    ~Owner() { close(fd_); }
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;

    void Send(uint32_t type, const std::string& payload) const {
        RequestMsg record;
        record.type = type;
        record.size = payload.size();
        std::memcpy(record.data, payload.data(), payload.size());
        const auto packet =
            ProcMgr::Agent::EncodeRecordPacket(ProcMgr::Agent::PacketKind::REQUEST, 0, record);
        if (send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
            Fail("send");
        }
    }
    void Receive() const {
        std::vector<uint8_t> buffer(ProcMgr::Agent::PACKET_MAX);
        if (recv(fd_, buffer.data(), buffer.size(), 0) <= 0) {
            Fail("recv");
        }
    }

private:
    [[noreturn]] static void Fail(const char* what) {
        std::perror(what);
        std::exit(1);
    }

    const int fd_;
};

std::string QueryOf(int names) {
    std::string payload;
    const auto append = [&payload](uint32_t number) {
        payload.append(reinterpret_cast<const char*>(&number), sizeof(number));
    };
    append(static_cast<uint32_t>(names));
    for (int i = 0; i < names; ++i) {
        const std::string name = "application" + std::to_string(i);
        append(static_cast<uint32_t>(name.size()));
        payload += name;
    }
    return payload;
}

double Since(uint64_t start) {
    return static_cast<double>(Bench::Now() - start) / MILLISECOND;
}

double ForkAndExec(const Bench::StampFile& stamps) {
    const uint64_t start = Bench::Now();
    const pid_t child = fork();
    if (child == 0) {
        execl(STAMP_SERVICE, STAMP_SERVICE, stamps.GetPath().c_str(), "0", nullptr);
        _exit(1);
    }
    const double time = Bench::SinceStart(start, stamps.WaitForAll(start));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return time;
}

void Print(const char* what, const std::vector<double>& times) {
    std::printf("| %s | %.3f ms | %.3f ms |\n", what, Bench::Median(times),
                Bench::Percentile(times, 95));
}

}  // namespace

int main(int argc, char** argv) {
    int runs = 100;
    if (argc == 3 && std::strcmp(argv[1], "--runs") == 0) {
        runs = static_cast<int>(std::strtol(argv[2], nullptr, 10));
    }
    Bench::EnterPrivateSystem(true);
    Bench::LayOutGroups();
    const Bench::StampFile stamps(1, "application-stamps");
    const Bench::StampFile bareStamps(1, "bare-stamps");
    const Bench::StampFile ownerStamps(1, "owner-stamps");
    const std::string program = std::string("bin: ") + STAMP_SERVICE + ", args: [\"";
    const std::string manifest =
        Bench::WriteFile("platform.yaml", "services:\n  - {name: owner, reporting: true, " +
                                              program + ownerStamps.GetPath() +
                                              "\", \"0\"]}\napplications:\n  - {name: app, " +
                                              program + stamps.GetPath() + "\", \"0\"]}\n");
    const pid_t daemon = Bench::Spawn({PROCESS_MANAGER, manifest});
    const Owner owner("owner");

    std::vector<double> starts;
    std::vector<double> bare;
    std::vector<double> deaths;
    std::vector<double> queries;
    const std::string query = QueryOf(NAMES);
    for (int run = 0; run < runs; ++run) {
        uint64_t start = Bench::Now();
        owner.Send(ProcMgr::Message::START_APP, "1#app#0#0#");
        const std::vector<Bench::Stamp> stamp = stamps.WaitForAll(start);
        starts.push_back(Bench::SinceStart(start, stamp));
        owner.Receive();
        std::this_thread::sleep_for(LIFE);

        start = Bench::Now();
        owner.Send(ProcMgr::Message::QUERY_APP_STATE, query);
        owner.Receive();
        queries.push_back(Since(start));

        start = Bench::Now();
        kill(static_cast<pid_t>(stamp.front().pid), SIGKILL);
        owner.Receive();
        deaths.push_back(Since(start));
        bare.push_back(ForkAndExec(bareStamps));
    }
    Bench::Stop(daemon);
    std::printf("| %d runs | median | 95th percentile |\n|---|---|---|\n", runs);
    Print("start request to first instruction", starts);
    Print("bare fork and exec", bare);
    Print("death to report received", deaths);
    Print("query of 100 names", queries);
    std::printf("\nratio of the start's medians: %.2f\n",
                Bench::Median(starts) / Bench::Median(bare));
    return 0;
}
