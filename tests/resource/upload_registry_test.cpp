// The "pmupload" server: real processes as peers, fake messaging and device libraries.
#include "resource/upload_registry.h"

#include <gmock/gmock.h>

#include "resource/device_worker.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/resource/resource_fixture.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using Fakes::FakeMuxa;
using Message::UploadResult;
using Tests::Child;
using Tests::WaitUntil;
using enum Message::UploadResult;
using Record = std::vector<uint8_t>;

constexpr uint64_t SEQUENCE = 0x123456789AULL;

// A process that only waits, and its child, which ends with it.
class Family {
public:
    Family() {
        EXPECT_EQ(pipe(ends_), 0);
        parent_.emplace([this] {
            // The child writes its pid itself: by then the kernel will end it with its parent.
            const Child child([this] {
                const pid_t pid = getpid();
                return write(ends_[1], &pid, sizeof pid) == sizeof pid ? Tests::Pause() : 1;
            });
            return Tests::Pause();
        });
        EXPECT_EQ(read(ends_[0], &child_, sizeof child_), ssize_t{sizeof child_});
        pid_ = parent_->Pid();
    }
    ~Family() {
        close(ends_[0]);
        close(ends_[1]);
    }
    pid_t Pid() const { return pid_; }
    pid_t ChildPid() const { return child_; }
    void End() { parent_->Kill(); }

private:
    int ends_[2] = {};
    std::optional<Child> parent_;
    pid_t pid_ = 0;
    pid_t child_ = 0;
};

class UploadRegistryTest : public ResourceTest {
protected:
    void Prepare() override {
        WriteFile("/etc/sharepool/groups.yaml",
                  "groups:\n"
                  "  - {name: extra, size: 1, members: [{app: viewer, access: read}]}\n"
                  "  - {name: frames, size: 1, members: [{app: camera, access: read-write},"
                  " {app: viewer, access: read}]}\n"
                  "  - {name: other, size: 1, members: [{app: configured, access: read}]}\n");
        apps_.apps = {{"camera", camera_.Pid(), {}, {}, "", "", "", false}};
        Renew();
    }
    // Replaces the registry by an empty one.
    void Renew() {
        registry_.reset();
        FakeMuxa::Get().Reset();
        LogCapture::Clear();
        pool_.emplace(DeviceWorker());
        pool_->Load("/etc/sharepool");
        FakeDevice::Get().Reset();
        registry_.emplace(*pool_, apps_);
        ASSERT_TRUE(registry_->RegXCallBack());
    }

    // Plays a peer; the kernel reports `pid` and `uid` for it.
    static void Send(const Record& record, pid_t pid, uint32_t uid, bool wantsResponse = true) {
        const MuxaRequest request{record.data(),
                                  static_cast<uint32_t>(record.size()),
                                  wantsResponse,
                                  SEQUENCE,
                                  pid,
                                  uid,
                                  0};
        EXPECT_TRUE(FakeMuxa::Get().Receive(FakeMuxa::Get().FdOf("pmupload"), request));
    }
    static Message::UploadResponse LastResponse() {
        const auto responses = FakeMuxa::Get().Responses();
        const MuxaResponse& last = responses.at(responses.size() - 1);
        EXPECT_EQ(last.sequence, SEQUENCE);
        return Message::DecodeUploadResponse(last.data).value();
    }
    Record Make(pid_t pid, const std::string& name, const Texts& groups = {}) const {
        return Message::EncodeUploadRequest({pid, name, path_, groups}).value();
    }
    // The calls of the device library: processes that have joined a group.
    static Texts Joined() {
        DeviceWorker().Drain(SteadyTime::max());
        return FakeDevice::Get().Calls();
    }
    static std::string Join(const std::string& group, pid_t pid, const std::string& access) {
        return "halGrpAddProc " + group + ' ' + to_string(pid) + ' ' + access;
    }
    // Sends a record to an empty registry. `groups` are those that the process is to join.
    void ExpectResult(const Record& record, pid_t pid, uint32_t uid, UploadResult result,
                      const Texts& groups, const std::string& access) {
        Renew();
        Send(record, pid, uid);
        EXPECT_EQ(LastResponse().result, result);
        EXPECT_EQ(LastResponse().groups, groups);
        EXPECT_EQ(registry_->IsEmpty(), result != REGISTERED);
        EXPECT_EQ(CountLines(LOG_WARNING), result == REGISTERED ? 0 : 1);
        Texts joined;
        for (const std::string& group : groups) {
            joined.push_back(Join(group, pid, access));
        }
        EXPECT_EQ(Joined(), joined);
    }

    Family camera_;
    Family guest_;
    FakeApps apps_;  // "camera"
    const std::string path_ = std::filesystem::read_symlink("/proc/self/exe");
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
    const Texts both = {"extra", "frames"};
    const std::string shorter = path_.substr(0, path_.size() - 1);
    struct Case {
        pid_t peer;
        uint32_t uid;
        Message::UploadRequest request;
        UploadResult result;
        Texts joined;
    };
    const Case cases[] = {
        {camera, 1000, {camera, "camera", path_, {}}, REGISTERED, {"frames"}},
        {guest, 0, {guest, "viewer", path_, {}}, REGISTERED, both},
        {guest, 0, {guest, "nobody", path_, {}}, REGISTERED, {}},
        {guest, 0, {guest, "viewer", path_, {"extra", "other", "new"}}, REGISTERED, {"extra"}},
        {crew, 1000, {crew, "camera", path_, {}}, REGISTERED, {"frames"}},
        {crew, 1000, {crew, "viewer", path_, {}}, REGISTERED, both},
        {crew, 1000, {crew, "configured", path_, {}}, NOT_ITS_NAME, {}},
        {party, 1000, {party, "viewer", path_, {}}, NOT_ITS_NAME, {}},
        {camera, 0, {camera, "viewer", path_, {}}, NOT_ITS_NAME, {}},
        {guest, 0, {guest, "camera", path_, {}}, NOT_ITS_NAME, {}},
        {guest, 1000, {guest, "viewer", path_, {}}, NOT_ITS_NAME, {}},
        {guest, 0, {camera, "camera", path_, {}}, NOT_THE_SENDER, {}},
        {camera, 0, {guest, "viewer", path_, {}}, NOT_THE_SENDER, {}},
        {gone.Pid(), 0, {gone.Pid(), "viewer", path_, {}}, NOT_THE_SENDER, {}},
        {guest, 0, {guest, "viewer", path_ + "x", {}}, NOT_THE_SENDER, {}},
        {guest, 0, {guest, "viewer", shorter, {}}, NOT_THE_SENDER, {}},
        {guest, 0, {guest, "viewer", "/proc/self/exe", {}}, NOT_THE_SENDER, {}},
        {guest, 0, {guest, "", path_, {}}, BAD_RECORD, {}},
    };
    for (const Case& test : cases) {
        const auto& [pid, name, path, groups] = test.request;
        SCOPED_TRACE(name + " of " + to_string(test.uid) + ' ' + path);
        ExpectResult(Message::EncodeUploadRequest(test.request).value(), test.peer, test.uid,
                     test.result, test.joined, name == "camera" ? "read-write" : "read");
    }
    Record other = Make(guest, "viewer");
    other[0] = 2;
    ExpectResult(other, guest, 0, OTHER_VERSION, {}, "");
    ExpectResult({}, guest, 0, BAD_RECORD, {}, "");
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
    const std::string guest = Join("frames", guest_.Pid(), "read");
    const std::string camera = Join("frames", camera_.Pid(), "read-write");
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
    const SteadyTime begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(WaitUntil([this] {
        Send(Make(camera_.Pid(), "viewer"), guest_.Pid(), 0);
        return CountLines(LOG_WARNING) == 2;
    }));
    EXPECT_GT(std::chrono::steady_clock::now() - begin, 500ms);
    EXPECT_GT(FakeMuxa::Get().Responses().size(), 2U);
}

TEST_F(UploadRegistryTest, ServerEndpoint) {
    FakeMuxa& muxa = FakeMuxa::Get();
    muxa.Push(FakeMuxa::Call::CLOSE, -16, 10 + 2 + 1);
    EXPECT_FALSE(registry_->Close(SteadyTime::max()));
    EXPECT_EQ(muxa.Closes().size(), 10U);
    EXPECT_FALSE(registry_->Close(std::chrono::steady_clock::now() + 30ms));
    EXPECT_EQ(muxa.Closes().size(), 12U) << "one at once, one at the end";
    EXPECT_TRUE(registry_->Close(SteadyTime::max()));
    EXPECT_EQ(muxa.OpenFds(), std::vector<int32_t>{});

    muxa.Push(FakeMuxa::Call::OPEN, -11);
    EXPECT_FALSE(registry_->RegXCallBack());
    registry_->Close(SteadyTime::max());
    EXPECT_EQ(muxa.Closes().size(), 14U);
}

TEST_F(UploadRegistryTest, AnAnswerThatIsNotTakenIsTriedAgainAndHoldsUpNobody) {
    constexpr auto RESPOND = FakeMuxa::Call::RESPOND;
    FakeMuxa& muxa = FakeMuxa::Get();
    const auto send = [&] { Send(Make(camera_.Pid(), "camera"), camera_.Pid(), 0); };
    const auto expectNoMoreThan = [&](size_t attempts) {
        EXPECT_FALSE(WaitUntil([&] { return muxa.Count(RESPOND) > attempts; }, 100ms)) << attempts;
    };
    const auto expectAttempts = [&](size_t attempts) {
        EXPECT_TRUE(WaitUntil([&] { return muxa.Count(RESPOND) >= attempts; })) << attempts;
        expectNoMoreThan(attempts);
    };
    muxa.Push(RESPOND, -11, 3);
    send();
    expectAttempts(4);
    muxa.Push(RESPOND, -11);
    muxa.Push(RESPOND, -32);  // any other failure is the last
    send();
    expectAttempts(6);

    muxa.SetDefault(RESPOND, -11);
    send();
    EXPECT_LT(muxa.Count(RESPOND), 100U) << "the callback has not waited";
    send();  // dropped after one attempt: an answer waits already
    expectAttempts(6 + 401 + 1);
    send();
    muxa.PeerGone(muxa.FdOf("pmupload"));
    expectNoMoreThan(muxa.Count(RESPOND) + 1);
}

}  // namespace
}  // namespace ProcMgr
