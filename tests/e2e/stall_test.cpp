// Peers that hold up whoever waits for them: owners and loggers that do not read, floods of
// requests and beats, programs that cannot be read. Nothing of that may hold up the supervision.
#include <optional>

#include "agent/upload.h"
#include "tests/e2e/e2e_fixture.h"
#include "tests/e2e/peers.h"

namespace {

using namespace std::chrono_literals;
using ProcMgr::Agent::ConnectSocket;
using ProcMgr::Agent::UniqueFd;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* SETTINGS = "/etc/vela/base-plat/process-manager/procmgr_cfg.yaml";
constexpr const char* HASH_FILE = "/etc/vela/base-plat/process-manager/bin_hash.cfg";
constexpr const char* HEARTBEAT_SOCKET = "/run/heartbeat.sock";
constexpr auto NEVER = 1h;
constexpr milliseconds SOON = 500ms * SLOWER;

// Sends requests over as many connections as it has, as fast as they are taken.
int FloodUpload() {
    const auto record = ProcMgr::Message::EncodeUploadRequest({getpid(), "camera", "/bin/x", {}});
    const auto packet = ProcMgr::Agent::EncodePacket(ProcMgr::Agent::PacketKind::CALL, 1, *record);
    std::vector<UniqueFd> peers(124);
    std::vector<uint8_t> buffer(ProcMgr::Agent::PACKET_MAX);
    for (;;) {
        for (UniqueFd& peer : peers) {
            if (!peer.IsValid()) {
                peer = ConnectSocket("/run/muxa/server/pmupload");
            }
            while (send(peer.Get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >
                   0) {
            }
            std::optional<size_t> length = 1;
            while (peer.IsValid() && length > 0U) {
                length = ProcMgr::Agent::ReceivePacket(peer.Get(), buffer);
            }
            if (length == 0U) {
                peer.Reset();
            }
        }
    }
}

// Whichever type the socket is of.
UniqueFd ConnectHeartbeat() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, HEARTBEAT_SOCKET, std::strlen(HEARTBEAT_SOCKET));
    for (const int type : {SOCK_SEQPACKET, SOCK_DGRAM}) {
        UniqueFd fd(socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
            return fd;
        }
    }
    return UniqueFd();
}

// Connections and packets, as many as there can be.
int FloodHeartbeat() {
    std::vector<UniqueFd> peers(500);
    for (;;) {
        for (UniqueFd& peer : peers) {
            if (!peer.IsValid()) {
                peer = ConnectHeartbeat();
            }
            while (send(peer.Get(), "svc", 3, MSG_NOSIGNAL) > 0) {
            }
            if (errno != EAGAIN) {
                peer.Reset();
            }
        }
    }
}

class Stall : public E2e {
protected:
    // A service that is restarted for ever and announces each of its processes.
    static std::string Victim(const Beacon& beacon) {
        return Entry("victim", "hello, " + beacon.Path() + ", stay", "restart: on-forever");
    }
    // One process and never a group or all, which is what 0 and -1 stand for.
    static void Kill(pid_t pid, int signal) {
        ASSERT_GT(pid, 1);
        kill(pid, signal);
    }
    // Kills the service's process, takes the next one for it and returns how long that took.
    static milliseconds Restart(const Beacon& beacon, pid_t& pid) {
        const auto begin = steady_clock::now();
        Kill(pid, SIGKILL);
        pid = beacon.Next(10s);
        EXPECT_GT(pid, 0) << "no new process";
        return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    }
    // Each within the limit.
    static void ExpectRestarts(const Beacon& beacon, pid_t& pid, int count, milliseconds limit) {
        for (int i = 0; i < count && !HasFailure(); ++i) {
            std::this_thread::sleep_for(100ms);  // so that restarts and stalls meet at many a time
            EXPECT_LE(Restart(beacon, pid), limit) << "restart " << i;
        }
    }
    static std::string Owner(const std::string& name) {
        return Entry(name, "stay", "reporting: true");
    }
    // Has its applications NAME-0... started, which end at once, again and again. Reads one record
    // each `pause`.
    static int Storm(const std::string& name, milliseconds pause) {
        RawOwner owner(name);
        if (!owner.Attach()) {
            return 1;
        }
        owner.SetSendTimeout(50ms);
        // Fills the queue for it: each of these has an answer.
        for (int i = 0; i < 400 && owner.Send(2, "1#" + name + "-0#"); ++i) {
        }
        for (auto last = steady_clock::now();;) {
            for (size_t i = 0; i < STORM_APPS; ++i) {
                owner.Send(0, "1#" + name + "-" + std::to_string(i) + "#0#0#");
            }
            std::this_thread::sleep_for(100ms);
            if (steady_clock::now() - last > pause) {
                last = steady_clock::now();
                owner.Next(0ms);
            }
        }
    }
    static std::string Apps(const std::string& owner, size_t count, const std::string& program) {
        std::string entries;
        for (size_t i = 0; i < count; ++i) {
            entries += "  - {name: " + owner + "-" + std::to_string(i) + ", " + program + "}\n";
        }
        return entries;
    }
    static std::string StormApps(const std::string& owner) {
        return Apps(owner, STORM_APPS, "bin: /bin/true");
    }
    // A service whose program the hash file protects.
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
    // Its process is killed when its program has become one that nobody ever writes to.
    static void SpoilProtected(pid_t pid) {
        std::filesystem::remove(In("protected"));
        ASSERT_EQ(mkfifo(In("protected").c_str(), 0755), 0);
        Kill(pid, SIGKILL);
    }
    static void EnableUpload() { BindFile("pmupload:\n  enable: true\n", SETTINGS); }

    static constexpr size_t STORM_APPS = 20;
};

TEST_F(Stall, AFifoInPlaceOfAProtectedProgram) {
    const Beacon spoilt(In("spoilt"));
    const Beacon victim(In("victim"));
    Boot(Protected(spoilt) + Victim(victim));
    pid_t pid = victim.Next();
    ASSERT_TRUE(WaitForLine(START_UP_END));
    SpoilProtected(spoilt.Next());
    ExpectRestarts(victim, pid, 5, 1s * SLOWER);
    ExpectPromptStop();
}

TEST_F(Stall, ALoggerThatNeverReads) {
    const Beacon victim(In("victim"));
    harness_.Log().Hold();
    Boot(Entry("odd", "stay", "colour: red") + Victim(victim));
    pid_t pid = victim.Next(3s * SLOWER);
    EXPECT_GT(pid, 0) << "is not started";
    ExpectRestarts(victim, pid, 3, SOON);
    ExpectPromptStop();
    harness_.Log().Release();
}

TEST_F(Stall, AFloodOfUploadRequests) {
    EnableUpload();
    const Beacon victim(In("victim"));
    Boot(Victim(victim));
    pid_t pid = victim.Next();
    ASSERT_TRUE(WaitForLine(START_UP_END));
    const HelperProcess flood(0, 0, FloodUpload);
    ExpectRestarts(victim, pid, 10, SOON);
    ExpectPromptStop();
}

TEST_F(Stall, AnOwnerThatHardlyReads) {
    for (const milliseconds pause : {milliseconds(NEVER), milliseconds(1s)}) {
        SCOPED_TRACE(pause.count());
        const Beacon victim(In("victim" + std::to_string(pause.count())));
        Boot(Victim(victim) + Owner("vintor") + "applications:\n" + StormApps("vintor"));
        pid_t pid = victim.Next();
        const HelperProcess storm(0, 0, [&] { return Storm("vintor", pause); });
        ASSERT_TRUE(WaitForLine(START_UP_END));
        std::this_thread::sleep_for(1s);  // its queues are full then
        ExpectRestarts(victim, pid, 10, SOON);
        ExpectPromptStop();
        harness_.KillAll();
        harness_.Log().Clear();
    }
}

TEST_F(Stall, AnOwnerThatPausesLearnsTheLastOfEach) {
    constexpr size_t APPS = 40;
    constexpr size_t REQUESTS = 700;
    Boot(Owner("vintor") + "applications:\n" +
         Apps("app", APPS, "bin: /bin/sleep, args: ['1000']"));
    RawOwner vintor("vintor");
    ASSERT_TRUE(vintor.Attach());
    ASSERT_TRUE(WaitForLine(START_UP_END));
    std::map<std::string, std::string> expected;
    for (size_t i = 0; i < APPS; ++i) {
        const std::string name = "app-" + std::to_string(i);
        ASSERT_TRUE(vintor.Send(0, "1#" + name + "#0#0#"));
        expected[name] = i % 2 == 0 ? "3" : "0";
    }
    EXPECT_EQ(vintor.LastWords().size(), APPS);
    // Sends on the test's connection; the daemon may take the requests when it likes.
    HelperProcess sender(0, 0, [&] {
        for (size_t i = 0; i < REQUESTS; ++i) {
            vintor.Send(0, "1#app-" + std::to_string(i % APPS) + "#0#0#");
        }
        for (size_t i = 0; i < APPS; i += 2) {
            vintor.Send(2, "1#app-" + std::to_string(i) + "#");
        }
        return 0;
    });
    std::this_thread::sleep_for(2600ms);
    EXPECT_EQ(vintor.LastWords(), expected);
    EXPECT_EQ(sender.Wait(), 0);
}

TEST_F(Stall, AnAccessManagerThatPausesLearnsOfADeath) {
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
    std::this_thread::sleep_for(2600ms);
    EXPECT_THAT(zornmgr.LastWords()["svc"], testing::AnyOf("3", "4"));
}

TEST_F(Stall, AFloodOfHeartbeatsHidesNobodysBeats) {
    const Beacon beacon(In("beating"));
    Boot(Entry("svc", "beat, svc, hello, " + beacon.Path() + ", stay", "reporting: true"));
    const pid_t pid = beacon.Next();
    std::vector<std::unique_ptr<HelperProcess>> floods;
    while (floods.size() < 4) {
        floods.push_back(std::make_unique<HelperProcess>(1000, 1000, FloodHeartbeat));
    }
    std::this_thread::sleep_for(6s);
    EXPECT_EQ(harness_.Log().Count("status=lost"), 0U);
    Kill(pid, SIGSTOP);
    EXPECT_TRUE(WaitForLine("status=lost")) << "was never watched";
    Kill(pid, SIGCONT);
}

TEST_F(Stall, IdleConnectionsKeepNobodyFromRegistering) {
    EnableUpload();
    Boot(Entry("svc"));
    ASSERT_TRUE(WaitForLine(START_UP_END));
    HelperProcess idle(1000, 1000, [] {
        std::vector<UniqueFd> peers;
        while (peers.size() < 128) {
            peers.push_back(ConnectSocket("/run/muxa/server/pmupload"));
        }
        WriteFile(In("idle"), "");
        const auto end = steady_clock::now() + 7s;
        return std::all_of(
                   peers.begin(), peers.end(),
                   [&](const UniqueFd& peer) {
                       const auto left =
                           std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
                       pollfd closed{peer.Get(), POLLIN, 0};
                       return !peer.IsValid() ||
                              (left > 0 && poll(&closed, 1, static_cast<int>(left)) > 0);
                   })
                   ? 0
                   : 1;
    });
    ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists(In("idle")); }));
    const auto begin = steady_clock::now();
    EXPECT_TRUE(ProcMgr::Agent::RegisterUpload("camera", {}, 1s * SLOWER)) << "no answer";
    EXPECT_EQ(idle.Wait(), 0) << "are not closed";
    EXPECT_GE(steady_clock::now() - begin, 4s) << "a few may be idle for a while";
}

TEST_F(Stall, AllAtOnce) {
    constexpr size_t KILLS = 100;
    EnableUpload();
    const Beacon spoilt(In("spoilt"));
    const Beacon victim(In("victim"));
    Boot(Protected(spoilt) + Victim(victim) + Owner("never") + Owner("slow") + "applications:\n" +
         StormApps("never") + StormApps("slow"));
    const HelperProcess never(0, 0, [] { return Storm("never", NEVER); });
    const HelperProcess slow(0, 0, [] { return Storm("slow", 1s); });
    ASSERT_TRUE(WaitForLine(START_UP_END));
    pid_t pid = victim.Next();
    const HelperProcess flood(0, 0, FloodUpload);
    harness_.Log().Hold();
    SpoilProtected(spoilt.Next());
    std::vector<milliseconds> times;
    while (times.size() < KILLS && !HasFailure()) {
        std::this_thread::sleep_for(40ms);  // a process that has lived so long is restarted at once
        times.push_back(Restart(victim, pid));
    }
    std::sort(times.begin(), times.end());
    EXPECT_LE(times[times.size() / 2], 50ms * SLOWER);
    ExpectPromptStop();
    harness_.Log().Release();
}

}  // namespace
