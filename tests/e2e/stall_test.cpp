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
using Reports = RawOwner::Reports;

// Takes what has come; closes the connection if the daemon has closed it.
void TakeAnswers(RawPeer& peer) {
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
            if (!peer.IsValid()) {
                peer = RawPeer(UPLOAD_SOCKET);
            }
            while (peer.Send(packet.data(), packet.size(), MSG_DONTWAIT)) {
            }
            TakeAnswers(peer);
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
    // Replaces the program by a FIFO that nobody writes to, and makes the daemon restart it.
    static void SpoilProtected(pid_t pid) {
        std::filesystem::remove(In("protected"));
        ASSERT_EQ(mkfifo(In("protected").c_str(), 0755), 0);
        Kill(pid);
    }
    static void EnableUpload() { BindFile("pmupload:\n  enable: true\n", SETTINGS); }
};

// The peers that hold up the daemon in one run; they go on until the test has ended.
struct Peers {
    const char* name;
    size_t restarts;
    bool hasFifo = false;    // in place of a protected program
    bool hasFlood = false;   // of registrations
    bool hasStorms = false;  // one owner that never reads, one that reads ten records per second
    bool hasLogger = false;  // that reads nothing after start-up
};

void PrintTo(const Peers& peers, std::ostream* out) {
    *out << peers.name;
}

class StallTest : public Stall, public testing::WithParamInterface<Peers> {};

TEST_P(StallTest, HoldsUpNeitherRestartsNorTheStop) {
    const Peers& who = GetParam();
    EnableUpload();
    const Beacon spoilt(In("spoilt"));
    const Beacon victim(In("victim"));
    std::string entries = (who.hasFifo ? Protected(spoilt) : "") + Victim(victim);
    std::vector<Child> peers;
    if (who.hasStorms) {
        entries += Owner("never") + Owner("slow") + "applications:\n";
        for (const std::string name : {"never", "slow"}) {
            entries += Apps(name, STORM_APPS, "bin: /bin/true");
            peers.emplace_back([name] { return Storm(name, name == "slow"); });
        }
    }
    BootWhole(entries);
    if (who.hasStorms) {
        ASSERT_TRUE(WaitForFile("never") && WaitForFile("slow"));
    }
    if (who.hasFlood) {
        peers.emplace_back(FloodUpload);
    }
    if (who.hasLogger) {
        Log().Hold();
    }
    if (who.hasFifo) {
        SpoilProtected(spoilt.Next());
    }
    ExpectRestarts(victim, victim.Next(), who.restarts);
    ExpectOrderlyStop();
    Log().Release();
}

INSTANTIATE_TEST_SUITE_P(Peers, StallTest,
                         testing::Values(Peers{.name = "Fifo", .restarts = 5, .hasFifo = true},
                                         Peers{.name = "Flood", .restarts = 10, .hasFlood = true},
                                         Peers{.name = "Owners", .restarts = 10, .hasStorms = true},
                                         Peers{"AllAtOnce", 60, true, true, true, true}),
                         [](const auto& peers) { return std::string(peers.param.name); });

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
    Reports expected;
    for (size_t i = 0; i < APPS; ++i) {
        const std::string name = "app-" + std::to_string(i);
        ASSERT_TRUE(vintor.Send(0, "1#" + name + "#0#0#"));
        expected[name] = i % 2 == 0 ? "3" : "0";
    }
    EXPECT_EQ(vintor.ReadUntil([](const Reports& last) { return last.size() == APPS; }).size(),
              APPS);
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
    EXPECT_EQ(vintor.ReadUntil([&](const Reports& last) { return last == expected; }), expected);
    EXPECT_EQ(sender.ExitCode(), 0);
}

TEST_F(Stall, AnAccessManagerThatPausesGetsADeath) {
    Boot(Owner("zornmgr") + Owner("vintor") +
         Entry("svc", "await, " + In("go") + ", exit, 3", "depends: [zornmgr]"));
    RawOwner zornmgr("zornmgr");
    RawOwner vintor("vintor");
    ASSERT_TRUE(vintor.Attach() && zornmgr.Attach());
    ASSERT_TRUE(WaitForLine(START_UP_END));
    for (int i = 0; i < 600; ++i) {
        vintor.Send(5, "1#guest-" + std::to_string(i % 10) + "#77#88#0#");
    }
    WriteFile(In("go"), "");
    ASSERT_TRUE(WaitForLine("ReportAppState failed: SendRequestMsg zornmgr failed"));
    const auto isDead = [](const Reports& last) {
        return last.contains("svc") && (last.at("svc") == "3" || last.at("svc") == "4");
    };
    EXPECT_TRUE(isDead(zornmgr.ReadUntil(isDead)));
}

TEST_F(Stall, IdleConnectionsKeepNobodyFromRegistering) {
    EnableUpload();
    BootWhole(Entry("svc"));
    const auto begin = steady_clock::now();
    Child idle(1000, 1000, [] {
        std::vector<RawPeer> peers;
        while (peers.size() < 128) {
            peers.emplace_back(UPLOAD_SOCKET);
        }
        WriteFile(In("idle"), "");
        return std::all_of(peers.begin(), peers.end(),
                           [](const RawPeer& peer) { return !peer.IsValid() || peer.HasEnded(); })
                   ? 0
                   : 1;
    });
    ASSERT_TRUE(WaitForFile("idle"));
    EXPECT_TRUE(ProcMgr::Agent::RegisterUpload("camera", {}, PATIENCE)) << "no answer";
    EXPECT_TRUE(idle.IsRunning()) << "the answer waited for the end of idle connections";
    EXPECT_EQ(idle.ExitCode(), 0) << "idle connections stay open";
    EXPECT_GE(steady_clock::now() - begin, 4s) << "some may be idle for 5 s";
}

}  // namespace
