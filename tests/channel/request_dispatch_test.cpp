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

    template <typename Item>
    static std::string Names(const std::vector<Item>& items) {
        std::string names;
        for (const Item& item : items) {
            names += " " + item.appName;
        }
        return names;
    }
    RequestHandlers MakeHandlers() {
        RequestHandlers handlers;
        handlers.startApp = [this](const auto& items, const auto& owner) {
            calls_.push_back(owner + " start" + Names(items));
        };
        handlers.restartApp = [this](const auto& items, const auto& owner) {
            calls_.push_back(owner + " restart" + Names(items));
        };
        handlers.termApp = [this](const auto& items, const auto& owner) {
            calls_.push_back(owner + " term" + Names(items));
        };
        handlers.baseServiceState = [this](const auto& info, const auto& owner) {
            calls_.push_back(owner + " state " + std::to_string(info.state));
        };
        handlers.appExecution = [this](const auto& info, const auto& owner) {
            calls_.push_back(owner + " execution " + info.appName + " " +
                             std::to_string(info.state));
        };
        handlers.loadStartupCfg = [this](const auto& info, const auto& owner, int32_t fd) {
            calls_.push_back(owner + " load " + info.path + " " + std::to_string(fd));
        };
        handlers.reloadStartupCfg = [this](const auto& info, const auto& owner, int32_t fd) {
            calls_.push_back(owner + " reload " + info.path + " " + std::to_string(fd));
        };
        handlers.queryAppState = [this](const auto& names, const auto& owner) {
            calls_.push_back(owner + " query " + std::to_string(names.size()));
        };
        handlers.setDelayCoreAffinity = [this](const auto& request) {
            calls_.push_back("delay " + std::to_string(request.state) + " " +
                             std::to_string(request.checkNum) + " " +
                             std::to_string(request.isWakeUpEnable) + " " +
                             std::to_string(request.checkInterval));
            return 0xF1030BU;
        };
        return handlers;
    }

    std::vector<std::string> calls_;
    RequestDispatch dispatch_{MakeHandlers()};
};

TEST_F(RequestDispatchTest, WhatIsNotARecordIsDropped) {
    const std::vector<uint8_t> bytes(4000, 3);
    const auto sizeLine = [](int size) {
        return "PROCMGR : RequestMsgHandler size=" + std::to_string(size) +
               " bytes is not illegal ,struct of message size=3984 bytes";
    };
    for (const uint32_t size : {0U, 7U, 9U, 3983U, 3985U}) {
        Handle(bytes.data(), size);
    }
    Handle(nullptr, 3984);
    Handle(bytes.data(), 3984, -1);
    dispatch_.RequestMsgHandler(0, nullptr, "owner");
    dispatch_.RequestMsgHandler(5, nullptr, "owner");
    const std::string badFd = "PROCMGR : RequestMsgHandler failed: invalid fd=";
    EXPECT_EQ(LogCapture::Lines(),
              (std::vector<LogLine>{{LOG_ERR, sizeLine(0)},
                                    {LOG_ERR, sizeLine(7)},
                                    {LOG_ERR, sizeLine(9)},
                                    {LOG_ERR, sizeLine(3983)},
                                    {LOG_ERR, sizeLine(3985)},
                                    {LOG_ERR,
                                     "PROCMGR : RequestMsgHandler failed: request is null "
                                     "point"},
                                    {LOG_ERR, badFd + "-1"},
                                    {LOG_ERR, badFd + "0"},
                                    {LOG_ERR, "PROCMGR : fd=5, owner=owner exit"}}));
    EXPECT_TRUE(calls_.empty());
}

TEST_F(RequestDispatchTest, TypesNobodyServesAreSilent) {
    for (const uint32_t type : {4U, 8U, 10U, 11U, 0x03000000U, 0xFFFFFFFFU}) {
        Handle(type, "1#2#", 4);
    }
    EXPECT_TRUE(LogCapture::Lines().empty());
    EXPECT_TRUE(calls_.empty());
}

TEST_F(RequestDispatchTest, EachTypeReachesItsHandler) {
    const std::string query("\1\0\0\0\2\0\0\0ab", 10);
    const struct {
        uint32_t type;
        std::string payload;
        std::string call;
    } cases[] = {
        {0, "2#a#0#0#b#0#0#", "start a b"},
        {1, "1#a#0#0#", "restart a"},
        {2, "2#a#b#", "term a b"},
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
