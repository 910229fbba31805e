// owner_bench [--runs N]
//
// Measures the waiting times of an owner: from its start request to the first instruction of the
// application's main, compared with a bare fork and exec of the same program in the same run; from
// the death of an application to the report; from a query of 100 names to the answer.
#include <poll.h>
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

#include "agent/packet_socket.h"
#include "bench/bench_support.h"
#include "message/record_codec.h"
#include "message/request_codec.h"
#include "wire/packet_io.h"
#include "wire/socket_paths.h"

namespace {

using ProcMgr::Message::RequestMsg;

constexpr double MILLISECOND = 1e6;
// A death after a shorter life counts as a crash loop.
constexpr std::chrono::milliseconds LIFE{60};
constexpr int NAMES = 100;

// The owner's end of its pipe. Any failure ends the program.
class Owner {
public:
    explicit Owner(const std::string& name) {
        const std::string path = Wire::PipePath(name);
        while (!(fd_ = ProcMgr::Agent::ConnectSocket(path)).IsValid()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        Send(ProcMgr::Message::EncodeStateReport(ProcMgr::BaseServiceStateType::RUNNING));
    }

    void Send(const RequestMsg& record) const {
        const auto bytes = ProcMgr::Message::EncodeRecord(record);
        if (Wire::SendPacket(fd_.Get(), {}, bytes) != Wire::SendResult::SENT) {
            Fail("send");
        }
    }
    void Receive() {
        pollfd readable{fd_.Get(), POLLIN, 0};
        poll(&readable, 1, -1);
        Wire::Packet packet;
        if (Wire::ReceivePacket(fd_.Get(), buffer_, packet) != Wire::ReceiveResult::PACKET) {
            Fail("recv");
        }
    }

private:
    [[noreturn]] static void Fail(const char* what) {
        std::perror(what);
        std::exit(1);
    }

    Wire::UniqueFd fd_;
    std::vector<uint8_t> buffer_ = std::vector<uint8_t>(Wire::PACKET_MAX);
};

RequestMsg QueryOf(int count) {
    std::vector<std::string> names;
    names.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        names.push_back("application" + std::to_string(i));
    }
    return ProcMgr::Message::EncodeQuery(names).value();
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
    const int runs = Bench::NumberOption(argc, argv, "--runs", 100);
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
    Owner owner("owner");

    std::vector<double> starts;
    std::vector<double> bare;
    std::vector<double> deaths;
    std::vector<double> queries;
    const RequestMsg startApp =
        ProcMgr::Message::MakeRecord(ProcMgr::Message::START_APP, "1#app#0#0#");
    const RequestMsg query = QueryOf(NAMES);
    for (int run = 0; run < runs; ++run) {
        uint64_t start = Bench::Now();
        owner.Send(startApp);
        const std::vector<Bench::Stamp> stamp = stamps.WaitForAll(start);
        starts.push_back(Bench::SinceStart(start, stamp));
        owner.Receive();
        std::this_thread::sleep_for(LIFE);

        start = Bench::Now();
        owner.Send(query);
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
