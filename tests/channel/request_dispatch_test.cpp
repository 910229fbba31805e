#include "channel/request_dispatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "message/request_msg.h"
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

    std::vector<std::pair<std::string, uint32_t>> reports_;
    RequestDispatch dispatch_{
        {[this](const std::string& owner, const Message::BaseServiceStateInfo& info) {
            reports_.emplace_back(owner, info.state);
        }}};
};

TEST_F(RequestDispatchTest, WhatIsNotARecordIsDropped) {
    const std::vector<uint8_t> bytes(4000, 3);
    const auto sizeLine = [](int size) {
        return "PROCMGR : RequestMsgHandler size=" + std::to_string(size) +
               " bytes is not illegal ,struct of message size=3984 bytes";
    };
    for (const uint32_t size : {0U, 3983U, 3985U}) {
        Handle(bytes.data(), size);
    }
    Handle(nullptr, 3984);
    Handle(bytes.data(), 3984, -1);
    dispatch_.RequestMsgHandler(0, nullptr, "owner");
    dispatch_.RequestMsgHandler(5, nullptr, "owner");
    const std::string badFd = "PROCMGR : RequestMsgHandler failed: invalid fd=";
    EXPECT_EQ(LogCapture::Lines(),
              (std::vector<LogLine>{{LOG_ERR, sizeLine(0)},
                                    {LOG_ERR, sizeLine(3983)},
                                    {LOG_ERR, sizeLine(3985)},
                                    {LOG_ERR,
                                     "PROCMGR : RequestMsgHandler failed: request is null "
                                     "point"},
                                    {LOG_ERR, badFd + "-1"},
                                    {LOG_ERR, badFd + "0"},
                                    {LOG_ERR, "PROCMGR : fd=5, owner=owner exit"}}));
    EXPECT_TRUE(reports_.empty());
}

TEST_F(RequestDispatchTest, TypesNobodyServesAreSilent) {
    for (const uint32_t type : {4U, 8U, 10U, 11U, 0x03000000U, 0xFFFFFFFFU}) {
        Handle(type, "1#2#", 4);
    }
    EXPECT_TRUE(LogCapture::Lines().empty());
    EXPECT_TRUE(reports_.empty());
}

TEST_F(RequestDispatchTest, StateReportsReachTheirHandler) {
    const struct {
        std::string payload;
        uint64_t size;
        uint32_t state;
    } cases[] = {
        {"1#2#", 4, 2}, {"1#3#", 4, 3}, {"9#2#", 4, 2}, {"1#4294967295#", 13, 4294967295U},
        {"", 0, 0},     {"1#2#", 2, 0},
    };
    for (const auto& [payload, size, state] : cases) {
        Handle(3, payload, size);
        ASSERT_FALSE(reports_.empty());
        EXPECT_EQ(reports_.back(), std::make_pair(std::string("owner"), state)) << payload;
    }
    // A size past the record's end: nothing behind it is read, whatever the state comes out as.
    Handle(3, std::string(3964, '1'), UINT64_MAX);
    EXPECT_EQ(reports_.size(), std::size(cases) + 1);
}

}  // namespace
}  // namespace ProcMgr
