// Peers that would hold up a daemon that waits for them: owners and loggers that do not read,
// floods of requests, a program that cannot be read. Supervision and the stop must go on.
#include <memory>
#include <thread>

#include "agent/upload.h"
#include "tests/e2e/e2e_fixture.h"
#include "tests/e2e/peers.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Sends as many registrations as the socket takes, and reads the answers.
void FloodOnce(RawPeer& peer, const std::vector<uint8_t>& packet) {
    if (!peer.IsValid()) {
        peer = RawPeer(UPLOAD_SOCKET);
    }
    while (peer.Send(packet.data(), packet.size(), MSG_DONTWAIT)) {
    }
    while (const auto answer = peer.Receive(0ms)) {
        if (answer->empty()) {
            peer.Close();
        }
    }
}

// Sends registrations over 124 connections, as fast as they are taken.
int FloodUpload() {
    const auto record = ProcMgr::Message::EncodeUploadRequest({getpid(), "camera", "/bin/x", {}});
    const auto packet = EncodePacket({Wire::PacketKind::CALL, 1}, *record);
    std::vector<RawPeer> peers(124);
    for (;;) {
        for (RawPeer& peer : peers) {
            FloodOnce(peer, packet);
        }
    }
}

class Stall : public E2e {
protected:
    static constexpr size_t STORM_APPS = 20;

    // A service that is always restarted and announces each of its processes.
    static std::string Victim(const Beacon& beacon) {
        return Entry("victim", "hello, " + beacon.Path() + ", stay", "restart: on-forever");
    }
    static std::string Apps(const std::string& owner, size_t count, const std::string& program) {
        std::string entries;
        for (size_t i = 0; i < count; ++i) {
            entries += "  - {name: " + owner + "-" + std::to_string(i) + ", " + program + "}\n";
        }
        return entries;
    }
    // Kills one process; never 0 or -1, which name a group or all processes.
    static void Kill(pid_t pid) {
        ASSERT_GT(pid, 1);
        kill(pid, SIGKILL);
    }
    // Kills the process of the victim and waits for the next one, `count` times. The limits on
    // their median and maximum are generous: a restart that is held up takes seconds, or never
    // comes.
    static void ExpectRestarts(const Beacon& beacon, pid_t pid, size_t count) {
        std::vector<milliseconds> times;
        while (times.size() < count && !HasFailure()) {
            // A process that ends within a check period, 30 ms, is restarted later on purpose.
            std::this_thread::sleep_for(60ms);
            const auto begin = steady_clock::now();
            Kill(pid);
            pid = beacon.Next();
            ASSERT_GT(pid, 0) << "restart " << times.size();
            times.push_back(std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin));
        }
        std::sort(times.begin(), times.end());
        EXPECT_LE(times[times.size() / 2], 250ms * SLOWER);
        EXPECT_LE(times.back(), 3s * SLOWER);
    }
    // An owner that has its applications NAME-0... started again and again; they end at once. Reads
    // one record per round, or nothing. Makes the file NAME when its queue is full.
    static int Storm(const std::string& name, bool isReading) {
        RawOwner owner(name);
        if (!owner.Attach()) {
            return 1;
        }
        owner.SetSendTimeout(50ms);
        // Each of these requests is answered with a report.
        for (int i = 0; i < 400 && owner.Send(2, "1#" + name + "-0#"); ++i) {
        }
        WriteFile(In(name), "");
        for (;;) {
            for (size_t i = 0; i < STORM_APPS; ++i) {
                owner.Send(0, "1#" + name + "-" + std::to_string(i) + "#0#0#");
            }
            std::this_thread::sleep_for(100ms);
            if (isReading) {
                owner.Next(0ms);
            }
        }
    }
    // A service whose program is listed in the hash file.
    static std::string Protected(const Beacon& beacon) {
        std::filesystem::copy_file(SERVICE, In("protected"));
        const std::unique_ptr<FILE, int (*)(FILE*)> sum(
            popen(("sha256sum " + In("protected")).c_str(), "r"), pclose);
        char digest[65]{};
        EXPECT_EQ(fread(digest, 1, 64, sum.get()), 64U);
        BindFile("protected=" + std::string(digest) + "\n", HASH_FILE);
        return "  - {name: protected, bin: " + In("protected") + ", args: [hello, " +
               beacon.Path() + ", stay], restart: on-failure}\n";
    }
};

// At the same time: a FIFO in place of a protected program, a flood of registrations, an owner that
// never reads, one that reads ten records per second, a logger that reads nothing after start-up.
TEST_F(Stall, PeersHoldUpNeitherRestartsNorTheStop) {
    BindFile("pmupload:\n  enable: true\n", SETTINGS);
    const Beacon spoilt(In("spoilt"));
    const Beacon victim(In("victim"));
    std::vector<Child> peers;
    std::string entries =
        Protected(spoilt) + Victim(victim) + Owner("never") + Owner("slow") + "applications:\n";
    for (const std::string name : {"never", "slow"}) {
        entries += Apps(name, STORM_APPS, "bin: /bin/true");
        peers.emplace_back([name] { return Storm(name, name == "slow"); });
    }
    BootWhole(entries);
    ASSERT_TRUE(WaitForFile("never") && WaitForFile("slow"));
    peers.emplace_back(FloodUpload);
    Log().Hold();
    // Nobody writes to the FIFO that takes the place of the program.
    std::filesystem::remove(In("protected"));
    ASSERT_EQ(mkfifo(In("protected").c_str(), 0755), 0);
    Kill(spoilt.Next());
    ExpectRestarts(victim, victim.Next(), 60);
    ExpectOrderlyStop();
    Log().Release();
}

TEST_F(Stall, ALoggerThatNeverReadsDoesNotHoldUpStartUp) {
    const Beacon victim(In("victim"));
    Log().Hold();
    Boot(Entry("odd", "stay", "colour: red") + Victim(victim));
    ExpectRestarts(victim, victim.Next(), 3);
    ExpectOrderlyStop();
    Log().Release();
}

// The daemon gives a report up when the pipe has not taken it for 2.5 s; the owner must get the
// last state of each application nevertheless.
TEST_F(Stall, AnOwnerThatPausesGetsTheLastStateOfEachApplication) {
    constexpr size_t APPS = 40;
    constexpr size_t REQUESTS = 700;
    Boot(Owner("vintor") + "applications:\n" +
         Apps("app", APPS, "bin: /bin/sleep, args: ['1000']"));
    RawOwner vintor("vintor");
    ASSERT_TRUE(vintor.Attach());
    ASSERT_TRUE(WaitForLine(START_UP_END));
    RawOwner::Reports expected;
    for (size_t i = 0; i < APPS; ++i) {
        const std::string name = "app-" + std::to_string(i);
        ASSERT_TRUE(vintor.Send(0, "1#" + name + "#0#0#"));
        expected[name] = i % 2 == 0 ? "3" : "0";
    }
    EXPECT_EQ(vintor.ReadUntil([](const auto& last) { return last.size() == APPS; }).size(), APPS);
    // On the test's connection, but from another process: the daemon may take the requests late.
    Child sender([&] {
        for (size_t i = 0; i < REQUESTS; ++i) {
            vintor.Send(0, "1#app-" + std::to_string(i % APPS) + "#0#0#");
        }
        for (size_t i = 0; i < APPS; i += 2) {
            vintor.Send(2, "1#app-" + std::to_string(i) + "#");
        }
        return 0;
    });
    ASSERT_TRUE(WaitForLine("ReportAppState failed: SendRequestMsg vintor failed"));
    EXPECT_EQ(vintor.ReadUntil([&](const auto& last) { return last == expected; }), expected);
    EXPECT_EQ(sender.ExitCode(), 0);
}

}  // namespace
