#include "channel/request_dispatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "message/request_msg.h"
#include "tests/fakes/fake_muxa.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;
using Message::RequestMsg;

class RequestDispatchTest : public testing::Test {
protected:
    void SetUp() override { LogCapture::Clear(); }

    void Handle(const void* data, uint32_t length, int32_t fd = 5) const {
        MuxaRequest request;
        request.data = data;
        request.length = length;
        dispatch_.RequestMsgHandler(fd, &request, "owner");
    }
    void Handle(uint32_t type, const std::string& payload, uint64_t size) const {
        RequestMsg record;
        record.type = type;
        record.size = size;
        std::memcpy(record.data, payload.data(), payload.size());
        Handle(&record, sizeof record);
    }

    static std::string Text(const Message::BaseServiceStateInfo& info) {
        return std::to_string(info.state);
    }
    static std::string Text(const Message::AppExecInfo& info) {
        return info.appName + " " + std::to_string(info.state);
    }
    static std::string Text(const Message::StartupCfgInfo& info) { return info.path; }
    static std::string Text(const std::vector<std::string>& names) {
        return std::to_string(names.size());
    }
    template <typename Item>
    static std::string Text(const std::vector<Item>& items) {
        std::string names;
        for (const Item& item : items) {
            names += item.appName;
        }
        return names;
    }
    // A handler that writes down what it is called with.
    auto Record(const char* what) {
        return [this, what](const auto& message, const auto& owner, auto... fd) {
            calls_.push_back(owner + " " + what + " " + Text(message));
            ((calls_.back() += " " + std::to_string(fd)), ...);
        };
    }
    RequestHandlers MakeHandlers() {
        return {.startApp = Record("start"),
                .restartApp = Record("restart"),
                .termApp = Record("term"),
                .baseServiceState = Record("state"),
                .appExecution = Record("execution"),
                .loadStartupCfg = Record("load"),
                .reloadStartupCfg = Record("reload"),
                .queryAppState = Record("query"),
                .setDelayCoreAffinity = [this](const auto& request) {
                    calls_.push_back("delay " + std::to_string(request.state) + " " +
                                     std::to_string(request.checkNum) + " " +
                                     std::to_string(request.isWakeUpEnable) + " " +
                                     std::to_string(request.checkInterval));
                    return 0xF1030BU;
                }};
    }

    std::vector<std::string> calls_;
    RequestDispatch dispatch_{MakeHandlers()};
};

TEST_F(RequestDispatchTest, WhatIsNotARecordIsDropped) {
    const std::vector<uint8_t> bytes(4000, 3);
    const uint32_t sizes[] = {0, 7, 9, 3983, 3985};
    for (const uint32_t size : sizes) {
        Handle(bytes.data(), size);
    }
    Handle(nullptr, 3984);
    Handle(bytes.data(), 3984, -1);
    dispatch_.RequestMsgHandler(0, nullptr, "owner");
    dispatch_.RequestMsgHandler(5, nullptr, "owner");
    const std::string failed = "PROCMGR : RequestMsgHandler failed: ";
    std::vector<LogLine> lines;
    for (const uint32_t size : sizes) {
        lines.push_back({LOG_ERR, "PROCMGR : RequestMsgHandler size=" + std::to_string(size) +
                                      " bytes is not illegal ,struct of message size=3984 bytes"});
    }
    for (const std::string& text :
         {failed + "request is null point", failed + "invalid fd=-1", failed + "invalid fd=0",
          std::string("PROCMGR : fd=5, owner=owner exit")}) {
        lines.push_back({LOG_ERR, text});
    }
    // Types that nobody serves are silent.
    for (const uint32_t type : {4U, 8U, 10U, 0x03000000U, 0xFFFFFFFFU}) {
        Handle(type, "1#2#", 4);
    }
    EXPECT_EQ(LogCapture::Lines(), lines);
    EXPECT_TRUE(calls_.empty());
}

TEST_F(RequestDispatchTest, EachTypeReachesItsHandler) {
    const std::string query("\1\0\0\0\2\0\0\0ab", 10);
    const struct {
        uint32_t type;
        std::string payload;
        std::string call;
    } cases[] = {
        {0, "2#a#0#0#b#0#0#", "start ab"},
        {1, "1#a#0#0#", "restart a"},
        {2, "2#a#b#", "term ab"},
        {3, "1#3#", "state 3"},
        {3, "", "state 0"},
        {5, "1#app#12#34#1#", "execution app 1"},
        {6, "1#/etc/x.yaml#0#", "load /etc/x.yaml 5"},
        {7, "1#/etc/x.yaml#0#", "reload /etc/x.yaml 5"},
        {9, query, "query 1"},
    };
    for (const auto& [type, payload, call] : cases) {
        calls_.clear();
        Handle(type, payload, payload.size());
        EXPECT_EQ(calls_, std::vector<std::string>{"owner " + call});
    }
    EXPECT_TRUE(LogCapture::Lines().empty());
    // One that cannot be read is answered all the same.
    Handle(9, query, 9);
    EXPECT_EQ(calls_.back(), "owner query 0");
    EXPECT_TRUE(LogCapture::Contains(LOG_ERR, "PROCMGR: DeserializeMessage QUERY_APP_STATE fail."));
}

TEST_F(RequestDispatchTest, EightBytesAreABindAndMayWantTheResult) {
    Fakes::FakeMuxa::Get().Reset();
    const uint8_t bytes[] = {1, 0xFF, 1, 0, 0x60, 0xEA, 0, 0};
    MuxaRequest request;
    request.data = bytes;
    request.length = sizeof bytes;
    for (const bool wantsResponse : {false, true}) {
        request.wantsResponse = wantsResponse;
        request.sequence = 0x123456789ABC;
        dispatch_.RequestMsgHandler(5, &request, "owner");
    }
    EXPECT_EQ(calls_, (std::vector<std::string>(2, "delay 1 -1 1 60000")));
    const std::vector<MuxaResponse> responses = Fakes::FakeMuxa::Get().Responses();
    ASSERT_EQ(responses.size(), 1U);
    EXPECT_EQ(responses[0].data, (std::vector<uint8_t>{0x0B, 0x03, 0xF1, 0}));
    EXPECT_EQ(responses[0].sequence, request.sequence);
}

}  // namespace
}  // namespace ProcMgr
