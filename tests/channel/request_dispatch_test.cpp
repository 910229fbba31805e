#include "channel/request_dispatch.h"

#include <gmock/gmock.h>

#include "message/record_codec.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr {
namespace {

using namespace Message;
using Fakes::LogCapture;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::SizeIs;

class Handlers : public RequestHandlers {
public:
    using Name = const std::string&;
    MOCK_METHOD(void, StartApp, (const std::vector<StartAppInfo>&, Name), (override));
    MOCK_METHOD(void, RestartApp, (const std::vector<RestartAppInfo>&, Name), (override));
    MOCK_METHOD(void, TermApp, (const std::vector<TermAppInfo>&, Name), (override));
    MOCK_METHOD(void, QueryAppState, (const std::vector<std::string>&, Name), (override));
    MOCK_METHOD(void, ReportBaseServiceState, (const BaseServiceStateInfo&, Name), (override));
    MOCK_METHOD(void, ReportAppExecution, (const AppExecInfo&, Name), (override));
    MOCK_METHOD(void, LoadStartupCfg, (const StartupCfgInfo&, Name, int32_t), (override));
    MOCK_METHOD(void, ReloadStartupCfg, (const StartupCfgInfo&, Name, int32_t), (override));
    MOCK_METHOD(uint32_t, SetDelayCoreAffinity, (const DelayCoreAffinityReq&), (override));
};

class RequestDispatchTest : public testing::Test {
protected:
    void SetUp() override { LogCapture::Clear(); }

    void Handle(const void* data, uint32_t length, int32_t fd = 5) const {
        MuxaRequest request;
        request.data = data;
        request.length = length;
        dispatch_.RequestMsgHandler(fd, &request, "owner");
    }
    void Handle(uint32_t type, const std::string& payload) const {
        const RequestMsg record = MakeRecord(RequestType{type}, payload);
        Handle(&record, sizeof record);
    }

    testing::StrictMock<Handlers> handlers_;
    RequestDispatch dispatch_{handlers_};
};

TEST_F(RequestDispatchTest, AMalformedRequestIsLoggedAndDropped) {
    const std::vector<uint8_t> bytes(4000, 3);
    for (const uint32_t size : {0U, 7U, 9U, 3983U, 3985U}) {
        Handle(bytes.data(), size);
        EXPECT_TRUE(LogCapture::Contains(
            LOG_ERR, "PROCMGR : RequestMsgHandler size=" + std::to_string(size) +
                         " bytes is not illegal ,struct of message size=3984 bytes"));
    }
    Handle(nullptr, 3984);
    Handle(bytes.data(), 3984, -1);
    dispatch_.RequestMsgHandler(0, nullptr, "owner");
    dispatch_.RequestMsgHandler(5, nullptr, "owner");
    for (const char* line :
         {"PROCMGR : RequestMsgHandler failed: request is null point",
          "PROCMGR : RequestMsgHandler failed: invalid fd=-1",
          "PROCMGR : RequestMsgHandler failed: invalid fd=0", "PROCMGR : fd=5, owner=owner exit"}) {
        EXPECT_TRUE(LogCapture::Contains(LOG_ERR, line)) << line;
    }
    for (const uint32_t type : {4U, 8U, 10U, 0x03000000U, 0xFFFFFFFFU}) {
        Handle(type, "1#2#");
    }
    EXPECT_EQ(LogCapture::Lines().size(), 9U) << "a type without a handler is dropped silently";
}

TEST_F(RequestDispatchTest, EachTypeReachesItsHandler) {
    EXPECT_CALL(handlers_, StartApp(SizeIs(2), "owner"));
    EXPECT_CALL(handlers_, RestartApp(SizeIs(1), "owner"));
    EXPECT_CALL(handlers_, TermApp(SizeIs(2), "owner"));
    EXPECT_CALL(handlers_, ReportBaseServiceState(Field(&BaseServiceStateInfo::state, 3), "owner"));
    EXPECT_CALL(handlers_, ReportAppExecution(Field(&AppExecInfo::appName, "app"), "owner"));
    const auto isFile = Field(&StartupCfgInfo::path, "/etc/x.yaml");
    EXPECT_CALL(handlers_, LoadStartupCfg(isFile, "owner", 5));
    EXPECT_CALL(handlers_, ReloadStartupCfg(isFile, "owner", 5));
    EXPECT_CALL(handlers_, QueryAppState(SizeIs(1), "owner"));
    Handle(0, "2#a#0#0#b#0#0#");
    Handle(1, "1#a#0#0#");
    Handle(2, "2#a#b#");
    Handle(3, "1#3#");
    Handle(5, "1#app#12#34#1#");
    Handle(6, "1#/etc/x.yaml#0#");
    Handle(7, "1#/etc/x.yaml#0#");
    Handle(9, std::string("\1\0\0\0\2\0\0\0ab", 10));
    EXPECT_TRUE(LogCapture::Lines().empty());
    EXPECT_CALL(handlers_, QueryAppState(SizeIs(0), "owner"));
    Handle(9, std::string("\1\0\0\0\2\0\0\0a", 9));
    EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "PROCMGR: DeserializeMessage QUERY_APP_STATE fail."));
}

TEST_F(RequestDispatchTest, EightBytesAreADelayRequestThatMayWantTheResult) {
    Fakes::FakeMuxa::Get().Reset();
    EXPECT_CALL(handlers_,
                SetDelayCoreAffinity(AllOf(Field(&DelayCoreAffinityReq::state, 1),
                                           Field(&DelayCoreAffinityReq::checkNum, -1),
                                           Field(&DelayCoreAffinityReq::isWakeUpEnable, 1),
                                           Field(&DelayCoreAffinityReq::checkInterval, 60000U))))
        .Times(2)
        .WillRepeatedly(testing::Return(0xF1030B));
    const uint8_t bytes[] = {1, 0xFF, 1, 0, 0x60, 0xEA, 0, 0};
    MuxaRequest request;
    request.data = bytes;
    request.length = sizeof bytes;
    request.sequence = 0x123456789ABC;
    for (const bool wantsResponse : {false, true}) {
        request.wantsResponse = wantsResponse;
        dispatch_.RequestMsgHandler(5, &request, "owner");
    }
    const std::vector<MuxaResponse> responses = Fakes::FakeMuxa::Get().Responses();
    ASSERT_EQ(responses.size(), 1U);
    EXPECT_THAT(responses[0].data, ElementsAre(0x0B, 0x03, 0xF1, 0));
    EXPECT_EQ(responses[0].sequence, request.sequence);
}

}  // namespace
}  // namespace ProcMgr
