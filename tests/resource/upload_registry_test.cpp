#include "resource/upload_registry.h"

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <thread>

#include "resource/device_worker.h"
#include "tests/fakes/fake_device.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/private_mounts.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using Fakes::FakeDevice;
using Fakes::FakeMuxa;
using Fakes::LogCapture;
using Message::UploadResult;
using enum Message::UploadResult;
using Texts = std::vector<std::string>;
using Record = std::vector<uint8_t>;

constexpr uint64_t SEQUENCE = 0x123456789AULL;

// A process that does nothing, and a child of it that ends with it.
class Child {
public:
    Child() {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const pid_t child = fork();
            if (child == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                const pid_t own = getpid();
                [[maybe_unused]] const ssize_t written = write(ends[1], &own, sizeof own);
            }
            for (;;) {
                pause();
            }
        }
        EXPECT_EQ(read(ends[0], &its_, sizeof its_), ssize_t{sizeof its_});
        close(ends[0]);
        close(ends[1]);
    }
    ~Child() { End(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    pid_t Pid() const { return pid_; }
    pid_t PidOfIts() const { return its_; }
    void End() {
        if (!isEnded_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            isEnded_ = true;
        }
    }

private:
    pid_t pid_ = 0;
    pid_t its_ = 0;
    bool isEnded_ = false;
};

// One application is managed, "camera", and another one is configured, "stranger".
class FakeApps : public ManagedApps {
public:
    explicit FakeApps(pid_t camera) : camera_(camera) {}
    std::vector<ManagedApp> GetManagedApps(ManagedFilter /*filter*/) override { return {}; }
    bool IsPresent(const ManagedApp& /*app*/) override { return true; }
    void NoteTids(const ManagedApp& /*app*/, const std::set<int32_t>& /*tids*/) override {}
    std::optional<std::string> GetNameOf(int32_t pid) override {
        return pid == camera_ ? std::optional<std::string>("camera") : std::nullopt;
    }
    bool HasProcess(const std::string& name) override { return name == "camera"; }
    bool IsKnown(const std::string& name) override {
        return HasProcess(name) || name == "stranger";
    }

private:
    const pid_t camera_;
};

class UploadRegistryTest : public testing::Test {
protected:
    void SetUp() override {
        if (!EnterPrivateMountNamespace()) {
            GTEST_SKIP() << "no private mount namespace here";
        }
        MountTmpfs("/etc/sharepool");
        std::ofstream("/etc/sharepool/groups.yaml")
            << "groups:\n"
               "  - {name: extra, size: 1, members: [{app: viewer, access: read}]}\n"
               "  - {name: frames, size: 1, members: [{app: camera, access: read-write},"
               " {app: viewer, access: read}]}\n"
               "  - {name: other, size: 1, members: [{app: stranger, access: read}]}\n";
        path_ = std::filesystem::read_symlink("/proc/self/exe");
        Renew();
    }

    // A registry that knows nothing.
    void Renew() {
        registry_.reset();
        FakeMuxa::Get().Reset();
        FakeDevice::Get().Reset();
        LogCapture::Clear();
        pool_.emplace(DeviceWorker());
        pool_->Load("/etc/sharepool");
        registry_.emplace(*pool_, apps_);
        ASSERT_TRUE(registry_->RegXCallBack());
    }

    // Plays a peer that the kernel says is this one.
    static void Send(const Record& record, pid_t pid, uint32_t uid, bool wantsResponse = true) {
        MuxaRequest request;
        request.data = record.empty() ? nullptr : record.data();
        request.length = static_cast<uint32_t>(record.size());
        request.wantsResponse = wantsResponse;
        request.sequence = SEQUENCE;
        request.peerPid = pid;
        request.peerUid = uid;
        EXPECT_TRUE(FakeMuxa::Get().Receive(FakeMuxa::Get().FdOf("pmupload"), request));
    }
    static Message::UploadResponse LastResponse() {
        const auto responses = FakeMuxa::Get().Responses();
        if (responses.empty() || responses.back().sequence != SEQUENCE) {
            ADD_FAILURE() << "no response to the request";
            return {};
        }
        return Message::DecodeUploadResponse(responses.back().data).value();
    }
    Record Make(pid_t pid, const std::string& name, const Texts& groups = {}) const {
        return Message::EncodeUploadRequest({pid, name, path_, groups}).value();
    }
    // Who joined which group: "GROUP PID ACCESS", by name.
    static Texts Joined() {
        DeviceWorker().Drain(SteadyTime::max());
        const std::string begin = "halGrpAddProc ";
        Texts joined;
        for (const std::string& call : FakeDevice::Get().Calls()) {
            if (call.starts_with(begin)) {
                joined.push_back(call.substr(begin.size()));
            }
        }
        std::sort(joined.begin(), joined.end());
        return joined;
    }
    static long Refusals() {
        const auto lines = LogCapture::Lines();
        return std::count_if(lines.begin(), lines.end(),
                             [](const auto& line) { return line.level == LOG_WARNING; });
    }
    // The only record was refused for this reason and has done nothing.
    void ExpectRefused(UploadResult result, const std::string& what) {
        EXPECT_EQ(LastResponse().result, result) << what;
        EXPECT_EQ(LastResponse().groups, Texts{}) << what;
        EXPECT_TRUE(registry_->IsEmpty()) << what;
        EXPECT_EQ(Joined(), Texts{}) << what;
        EXPECT_EQ(Refusals(), 1) << what;
    }

    Child camera_;
    Child guest_;
    FakeApps apps_{camera_.Pid()};
    std::string path_;
    std::optional<SharePool> pool_;
    std::optional<UploadRegistry> registry_;
};

TEST_F(UploadRegistryTest, OnlyTheTruthIsBelieved) {
    Child gone;
    gone.End();
    const pid_t camera = camera_.Pid();
    const pid_t guest = guest_.Pid();
    const pid_t crew = camera_.PidOfIts();
    const pid_t party = guest_.PidOfIts();
    using Access = std::map<std::string, std::string>;  // by group
    const Access frames = {{"frames", "read-write"}};
    const Access both = {{"extra", "read"}, {"frames", "read"}};
    const Access extra = {{"extra", "read"}};
    const std::string shorter = path_.substr(0, path_.size() - 1);
    struct Case {
        pid_t peer;
        uint32_t uid;
        Message::UploadRequest request;
        UploadResult result;
        Access joined;
    };
    const Case cases[] = {
        {camera, 0, {camera, "camera", path_, {}}, REGISTERED, frames},
        {camera, 1000, {camera, "camera", path_, {}}, REGISTERED, frames},
        {guest, 0, {guest, "viewer", path_, {}}, REGISTERED, both},
        {guest, 0, {guest, "nobody", path_, {}}, REGISTERED, {}},
        {guest, 0, {guest, "viewer", path_, {"extra", "other", "new"}}, REGISTERED, extra},
        {guest, 0, {guest, "viewer", path_, {"other"}}, REGISTERED, {}},
        {crew, 1000, {crew, "camera", path_, {}}, REGISTERED, frames},
        {crew, 1000, {crew, "viewer", path_, {}}, REGISTERED, both},
        {crew, 1000, {crew, "stranger", path_, {}}, NOT_ITS_NAME, {}},
        {party, 1000, {party, "viewer", path_, {}}, NOT_ITS_NAME, {}},
        {camera, 0, {camera, "viewer", path_, {}}, NOT_ITS_NAME, {}},
        {guest, 0, {guest, "camera", path_, {}}, NOT_ITS_NAME, {}},
        {guest, 1000, {guest, "viewer", path_, {}}, NOT_ITS_NAME, {}},
        {guest, 0, {camera, "camera", path_, {}}, NOT_THE_SENDER, {}},
        {camera, 0, {guest, "viewer", path_, {}}, NOT_THE_SENDER, {}},
        {gone.Pid(), 0, {gone.Pid(), "viewer", path_, {}}, NOT_THE_SENDER, {}},
        {guest, 0, {guest, "viewer", "/bin/sh", {}}, NOT_THE_SENDER, {}},
        {guest, 0, {guest, "viewer", path_ + "x", {}}, NOT_THE_SENDER, {}},
        {guest, 0, {guest, "viewer", shorter, {}}, NOT_THE_SENDER, {}},
        {guest, 0, {guest, "viewer", "/proc/self/exe", {}}, NOT_THE_SENDER, {}},
        {0, 0, {0, "viewer", path_, {}}, BAD_RECORD, {}},
        {guest, 0, {guest, "", path_, {}}, BAD_RECORD, {}},
    };
    for (const Case& test : cases) {
        const std::string what =
            test.request.name + " of " + std::to_string(test.uid) + ' ' + test.request.path + ' ';
        Renew();
        Send(Message::EncodeUploadRequest(test.request).value(), test.peer, test.uid);
        if (test.result != REGISTERED) {
            ExpectRefused(test.result, what);
            continue;
        }
        Texts joined;
        Texts names;
        for (const auto& [group, access] : test.joined) {
            joined.push_back(group + ' ' + std::to_string(test.peer) + ' ' + access);
            names.push_back(group);
        }
        EXPECT_EQ(LastResponse().result, REGISTERED) << what;
        EXPECT_EQ(LastResponse().groups, names) << what;
        EXPECT_FALSE(registry_->IsEmpty()) << what;
        EXPECT_EQ(Joined(), joined) << what;
        EXPECT_EQ(Refusals(), 0) << what;
    }
}

TEST_F(UploadRegistryTest, RecordsThatAreNone) {
    const pid_t guest = guest_.Pid();
    const Record good = Make(guest, "viewer");
    Record longer = good;
    longer.push_back(0);
    Record other = good;
    other[0] = 2;
    const std::pair<Record, UploadResult> cases[] = {
        {{}, BAD_RECORD},     {{1, 0, 0}, BAD_RECORD}, {{good.begin(), good.end() - 1}, BAD_RECORD},
        {longer, BAD_RECORD}, {other, OTHER_VERSION},  {{2, 0, 0, 0, 9}, OTHER_VERSION},
    };
    for (const auto& [record, result] : cases) {
        Renew();
        Send(record, guest, 0);
        ExpectRefused(result, std::to_string(record.size()));
    }
}

TEST_F(UploadRegistryTest, RespondsWhenThatIsWantedAndJoinsOnce) {
    const pid_t guest = guest_.Pid();
    const Record record = Make(guest, "viewer");
    Send(record, camera_.Pid(), 0, false);
    EXPECT_EQ(Joined(), Texts{});
    FakeDevice::Get().Push("halGrpAddProc", 7);
    FakeDevice::Get().Push("halGrpAddProc", 0);
    FakeDevice::Get().Push("halGrpAddProc", 7);
    Send(record, guest, 0, false);
    EXPECT_EQ(Joined().size(), 2U);
    EXPECT_TRUE(FakeMuxa::Get().Responses().empty());

    // What failed is tried again, and what is there already is told.
    Send(record, guest, 0);
    EXPECT_EQ(LastResponse().result, REGISTERED);
    EXPECT_EQ(LastResponse().groups, Texts{"frames"});
    for (const Record& again : {record, Make(guest, "viewer", {"extra"})}) {
        Send(again, guest, 0);
        EXPECT_EQ(LastResponse().groups, (Texts{"extra", "frames"}));
    }
    EXPECT_EQ(Joined().size(), 4U);
    EXPECT_EQ(FakeMuxa::Get().Responses().size(), 3U);

    // As the launcher does.
    pool_->Join("camera", camera_.Pid(), pool_->MakePlan("camera", {}));
    Send(Make(camera_.Pid(), "camera"), camera_.Pid(), 0);
    EXPECT_EQ(LastResponse().groups, Texts{"frames"});
    EXPECT_EQ(Joined().size(), 5U);
}

TEST_F(UploadRegistryTest, ARegistrationLastsAsLongAsItsProcess) {
    const std::string guest = "frames " + std::to_string(guest_.Pid()) + " read";
    const std::string camera = "frames " + std::to_string(camera_.Pid()) + " read-write";
    Send(Make(camera_.Pid(), "camera"), camera_.Pid(), 1000);
    Send(Make(guest_.Pid(), "viewer", {"frames"}), guest_.Pid(), 0);
    FakeMuxa::Get().PeerGone(FakeMuxa::Get().FdOf("pmupload"));
    // Joins again only what is not known to have joined.
    const auto join = [this] {
        pool_->Join("viewer", guest_.Pid(), {{{"frames", "read"}}, true});
        pool_->Join("camera", camera_.Pid(), {{{"frames", "read-write"}}, true});
    };
    registry_->DropGone();
    join();
    EXPECT_THAT(Joined(), testing::UnorderedElementsAre(guest, camera));
    guest_.End();
    registry_->DropGone();
    EXPECT_FALSE(registry_->IsEmpty());
    join();
    EXPECT_THAT(Joined(), testing::UnorderedElementsAre(guest, guest, camera));

    camera_.End();
    registry_->DropGone();
    EXPECT_TRUE(registry_->IsEmpty());
}

TEST_F(UploadRegistryTest, RefusalsAreLoggedOnceASecond) {
    for (int i = 0; i < 50; ++i) {
        Send(Make(camera_.Pid(), "viewer"), guest_.Pid(), 0);
    }
    EXPECT_EQ(Refusals(), 1);
    std::this_thread::sleep_for(1100ms);
    Send(Make(camera_.Pid(), "viewer"), guest_.Pid(), 0);
    Send(Make(camera_.Pid(), "viewer"), guest_.Pid(), 0);
    EXPECT_EQ(Refusals(), 2);
}

TEST_F(UploadRegistryTest, ServerEndpoint) {
    EXPECT_GT(FakeMuxa::Get().FdOf("pmupload"), 0);
    FakeMuxa::Get().Push(FakeMuxa::Call::CLOSE, -16, 10 + 2 + 1);
    EXPECT_FALSE(registry_->Close(SteadyTime::max()));
    EXPECT_EQ(FakeMuxa::Get().Closes().size(), 10U);
    const SteadyTime end = std::chrono::steady_clock::now() + 30ms;
    EXPECT_FALSE(registry_->Close(end));
    EXPECT_EQ(FakeMuxa::Get().Closes().size(), 12U) << "one at once, one at the end";
    EXPECT_LT(std::chrono::steady_clock::now() - end, 60ms);
    EXPECT_TRUE(registry_->Close(SteadyTime::max()));
    EXPECT_EQ(FakeMuxa::Get().Closes().size(), 14U);
    EXPECT_EQ(FakeMuxa::Get().OpenFds(), std::vector<int32_t>{});

    FakeMuxa::Get().Push(FakeMuxa::Call::OPEN, -11);
    EXPECT_FALSE(registry_->RegXCallBack());
    registry_->Close(SteadyTime::max());
    EXPECT_EQ(FakeMuxa::Get().Closes().size(), 14U);
}

TEST_F(UploadRegistryTest, AnAnswerThatIsNotTakenIsTriedAgainAndHoldsUpNobody) {
    constexpr auto RESPOND = FakeMuxa::Call::RESPOND;
    FakeMuxa& muxa = FakeMuxa::Get();
    const Record record = Make(camera_.Pid(), "camera");
    const auto send = [&] { Send(record, camera_.Pid(), 0); };
    // How many attempts there are in all, once no more are made.
    const auto attempts = [&muxa] {
        size_t before = 0;
        while (before != muxa.Count(RESPOND)) {
            before = muxa.Count(RESPOND);
            std::this_thread::sleep_for(100ms);
        }
        return before;
    };
    muxa.Push(RESPOND, -11, 3);
    send();
    EXPECT_EQ(attempts(), 4U);
    muxa.Push(RESPOND, -11);
    muxa.Push(RESPOND, -32);
    send();
    EXPECT_EQ(attempts(), 6U) << "any other failure is the last";

    muxa.SetDefault(RESPOND, -11);
    send();
    EXPECT_LT(muxa.Count(RESPOND), 100U) << "the callback does not wait";
    send();  // one of a peer may wait
    EXPECT_EQ(attempts(), 6U + 401 + 1);
    send();
    muxa.PeerGone(muxa.FdOf("pmupload"));
    EXPECT_LT(attempts(), 6U + 401 + 1 + 100);
}

TEST_F(UploadRegistryTest, RequestsAndChecksAtOnce) {
    const Record record = Make(camera_.Pid(), "camera");
    std::vector<std::thread> peers;
    for (int peer = 0; peer < 3; ++peer) {
        peers.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                Send(record, camera_.Pid(), 0);
            }
        });
    }
    for (int check = 0; check < 200; ++check) {
        registry_->DropGone();
    }
    for (std::thread& peer : peers) {
        peer.join();
    }
    EXPECT_EQ(FakeMuxa::Get().Responses().size(), 300U);
    EXPECT_EQ(Joined().size(), 1U);
}

}  // namespace
}  // namespace ProcMgr
