// The "pmupload" server: real processes as peers, fake messaging and device libraries.
#include "resource/upload_registry.h"

#include <gmock/gmock.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <thread>

#include "resource/device_worker.h"
#include "tests/fakes/fake_device.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"
#include "tests/resource/resource_fixture.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using Fakes::FakeDevice;
using Fakes::FakeMuxa;
using Message::UploadResult;
using Tests::Child;
using enum Message::UploadResult;
using Record = std::vector<uint8_t>;

constexpr uint64_t SEQUENCE = 0x123456789AULL;

// A process that only waits, and its child, which ends with it.
class Family {
public:
    Family() {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        parent_.emplace([&ends] {
            // The child writes its pid itself: by then the kernel will end it with its parent.
            const Child child([&ends] {
                const pid_t pid = getpid();
                [[maybe_unused]] const ssize_t written = write(ends[1], &pid, sizeof pid);
                return Tests::Pause();
            });
            return Tests::Pause();
        });
        EXPECT_EQ(read(ends[0], &child_, sizeof child_), ssize_t{sizeof child_});
        close(ends[0]);
        close(ends[1]);
        pid_ = parent_->Pid();
    }
    pid_t Pid() const { return pid_; }
    pid_t ChildPid() const { return child_; }
    void End() { parent_->Kill(); }

private:
    std::optional<Child> parent_;
    pid_t pid_ = 0;
    pid_t child_ = 0;
};

class UploadRegistryTest : public testing::Test {
protected:
    void SetUp() override {
        if (!EnterPrivateMountNamespace()) {
            GTEST_SKIP() << "no private mount namespace here";
        }
        MountTmpfs("/etc/sharepool");
        Tests::WriteFile(
            "/etc/sharepool/groups.yaml",
            "groups:\n"
            "  - {name: extra, size: 1, members: [{app: viewer, access: read}]}\n"
            "  - {name: frames, size: 1, members: [{app: camera, access: read-write},"
            " {app: viewer, access: read}]}\n"
            "  - {name: other, size: 1, members: [{app: configured, access: read}]}\n");
        apps_.apps = {{"camera", camera_.Pid(), {}, {}, "", "", "", false}};
        path_ = std::filesystem::read_symlink("/proc/self/exe");
        Renew();
    }

    // Replaces the registry by an empty one.
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

    // Plays a peer; the kernel reports `pid` and `uid` for it.
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
    // The joined groups as "GROUP PID ACCESS", sorted.
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
    // Expects the only record since Renew() to have been refused, without an effect.
    void ExpectRefused(UploadResult result, const std::string& what) {
        EXPECT_EQ(LastResponse().result, result) << what;
        EXPECT_EQ(LastResponse().groups, Texts{}) << what;
        EXPECT_TRUE(registry_->IsEmpty()) << what;
        EXPECT_EQ(Joined(), Texts{}) << what;
        EXPECT_EQ(Refusals(), 1) << what;
    }

    Family camera_;
    Family guest_;
    FakeApps apps_;  // "camera"
    std::string path_;
    std::optional<SharePool> pool_;
    std::optional<UploadRegistry> registry_;
};

TEST_F(UploadRegistryTest, FieldsThatTheKernelContradictsAreRefused) {
    Family gone;
    gone.End();
    const pid_t camera = camera_.Pid();
    const pid_t guest = guest_.Pid();
    const pid_t crew = camera_.ChildPid();
    const pid_t party = guest_.ChildPid();
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
        {crew, 1000, {crew, "configured", path_, {}}, NOT_ITS_NAME, {}},
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

TEST_F(UploadRegistryTest, RecordsThatCannotBeDecoded) {
    const pid_t guest = guest_.Pid();
    const Record good = Make(guest, "viewer");
    Record other = good;
    other[0] = 2;
    const std::pair<Record, UploadResult> cases[] = {
        {{}, BAD_RECORD}, {{good.begin(), good.end() - 1}, BAD_RECORD}, {other, OTHER_VERSION}};
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

    // A join that failed is tried again; the answer names the groups that were joined before, too.
    Send(record, guest, 0);
    EXPECT_EQ(LastResponse().result, REGISTERED);
    EXPECT_EQ(LastResponse().groups, Texts{"frames"});
    for (const Record& again : {record, Make(guest, "viewer", {"extra"})}) {
        Send(again, guest, 0);
        EXPECT_EQ(LastResponse().groups, (Texts{"extra", "frames"}));
    }
    EXPECT_EQ(Joined().size(), 4U);
    EXPECT_EQ(FakeMuxa::Get().Responses().size(), 3U);

    // The launcher has let the process join.
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
    // Adds to the device's calls only for a process that the pool does not know to have joined.
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
    const SteadyTime begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(Tests::WaitUntil([this] {
        Send(Make(camera_.Pid(), "viewer"), guest_.Pid(), 0);
        return Refusals() == 2;
    }));
    EXPECT_GT(std::chrono::steady_clock::now() - begin, 500ms);
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
    // The number of attempts so far, as soon as it no longer grows.
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
    EXPECT_LT(muxa.Count(RESPOND), 100U) << "the callback has not waited";
    send();  // dropped after one attempt: an answer waits already
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
