#include "message/serialization.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/fakes/log_capture.h"

namespace ProcMgr::Serialization {
namespace {

using Fakes::LogCapture;
using Message::RequestMsg;
using Pieces = std::vector<std::pair<uint32_t, std::string>>;

RequestMsg Record(const std::string& payload) {
    RequestMsg record;
    record.size = payload.size();
    memcpy(record.data, payload.data(), payload.size());
    return record;
}

std::string Payload(const RequestMsg& record) {
    return {reinterpret_cast<const char*>(record.data), record.size};
}

// A piece of that many bytes; the letter tells it from others.
std::pair<uint32_t, std::string> Piece(uint32_t length, char letter = 'a') {
    return {length, std::string(length, letter)};
}

class SerializationTest : public testing::Test {
protected:
    void SetUp() override { LogCapture::Clear(); }
};

TEST_F(SerializationTest, PacksEveryFieldOfAReport) {
    Pieces pieces{{3, "old"}};
    EXPECT_TRUE(ProcMgrPackAppStateRequest(
        {{"app_a", 1, 2, 3, 4}, {"", UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX}}, pieces));
    const Pieces expected = {
        {3, "old"},
        {14, "app_a#1#2#3#4#"},
        {45, "#4294967295#4294967295#4294967295#4294967295#"},
    };
    EXPECT_EQ(pieces, expected);
}

TEST_F(SerializationTest, RefusesAReportOfMoreThan3959Bytes) {
    const std::string rest = "#1#2#3#4#";
    Pieces pieces;
    EXPECT_TRUE(
        ProcMgrPackAppStateRequest({{std::string(3959 - rest.size(), 'n'), 1, 2, 3, 4}}, pieces));
    const std::string name(3960 - rest.size(), 'n');
    EXPECT_FALSE(ProcMgrPackAppStateRequest({{"a", 1, 2, 3, 4}, {name, 1, 2, 3, 4}}, pieces));
    EXPECT_TRUE(LogCapture::Contains(3, "ProcMgrAgent : PackAppStateRequest failed=" + name + rest +
                                            ", size=3960 bytes beyond the PM_PIPE_BUF_MAX!!"));
}

TEST_F(SerializationTest, GathersPiecesInOrderOfLength) {
    struct Case {
        const char* name;
        Pieces pieces;
        std::vector<std::string> payloads;
        bool isDropping = false;
    };
    const auto text = [](uint32_t length, char letter = 'a') {
        return std::string(length, letter);
    };
    const Case cases[] = {
        {"three lengths",
         {Piece(2000), Piece(1955), Piece(10)},
         {"2#" + text(10) + text(1955), "1#" + text(2000)}},
        {"equal lengths go by text",
         {Piece(2, 'c'), Piece(2, 'a'), Piece(1, 'z'), Piece(2, 'b')},
         {"4#zaabbcc"}},
        {"3956 in all do not", {Piece(2000), Piece(1956)}, {"1#" + text(1956), "1#" + text(2000)}},
        {"the largest piece", {Piece(3955)}, {"1#" + text(3955)}},
        {"one that is too large",
         {Piece(3956), Piece(7, 'b'), Piece(3957)},
         {"1#" + text(7, 'b')},
         true},
    };
    Pieces nothing;
    std::vector<RequestMsg> none;
    EXPECT_FALSE(ProcMgrCombinePiecesMsg(Message::APP_STATE_REPORT, nothing, none));
    EXPECT_TRUE(LogCapture::Contains(3, "CombinePiecesMsg failed: packedRequest is empty!!"));
    for (const Case& test : cases) {
        LogCapture::Clear();
        Pieces pieces = test.pieces;
        std::vector<RequestMsg> records(1);
        EXPECT_TRUE(ProcMgrCombinePiecesMsg(Message::APP_STATE_REPORT, pieces, records));
        EXPECT_TRUE(std::is_sorted(pieces.begin(), pieces.end())) << test.name;
        ASSERT_EQ(records.size(), test.payloads.size() + 1) << test.name;
        for (size_t i = 0; i < test.payloads.size(); ++i) {
            const RequestMsg& record = records[i + 1];
            EXPECT_EQ(record.type, 4U);
            EXPECT_EQ(Payload(record), test.payloads[i]) << test.name;
            EXPECT_TRUE(std::all_of(record.data + record.size, std::end(record.data),
                                    [](uint8_t byte) { return byte == 0; }));
        }
        EXPECT_EQ(LogCapture::Count(4,
                                    "ProcMgrAgent : packedRequest=3956 bytes beyond the "
                                    "PM_PIPE_BUF_MAX!"),
                  test.isDropping ? 1U : 0U);
        EXPECT_EQ(LogCapture::Lines().size(), test.isDropping ? 1U : 0U) << test.name;
    }
}

TEST_F(SerializationTest, ABodyThatDoesNotFitStillMakesARecord) {
    std::vector<RequestMsg> records;
    ProcMgrCombineMsg(Message::TERM_APP, 1, std::string(3962, 'x'), records);
    EXPECT_TRUE(LogCapture::Lines().empty());
    ProcMgrCombineMsg(Message::TERM_APP, 1, std::string(3963, 'x'), records);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(Payload(records[0]), "1#" + std::string(3962, 'x'));
    EXPECT_EQ(records[1].type, 2U);
    EXPECT_EQ(records[1].size, 3965U);
    EXPECT_TRUE(LogCapture::ContainsPart(
        3, "ProcMgrCombineMsg failed memcpy_s failed: strSize=3965 bytes, ret="));
}

TEST_F(SerializationTest, ReadsABaseServicesState) {
    const std::pair<const char*, uint32_t> cases[] = {
        {"1#2#", 2}, {"99#3#", 3}, {"", 7}, {"1#", 7}, {"x#2#", 7}, {"1#4294967295#", UINT32_MAX},
    };
    for (const auto& [payload, state] : cases) {
        Message::BaseServiceStateInfo info{7};
        const RequestMsg record = Record(payload);
        ProcMgrUnpackedBaseServiceStateRequest(&record, info);
        // What an extraction that fails stores is the stream's affair: 0 is as good as no change.
        EXPECT_TRUE(info.state == state || (state == 7 && info.state == 0)) << payload;
    }
}

TEST_F(SerializationTest, ASizeBeyondTheRecordIsNotFollowed) {
    for (const uint64_t size : {uint64_t{3965}, uint64_t{1} << 40, UINT64_MAX}) {
        // On the heap, so that the address sanitizer sees a read behind it.
        const auto record = std::make_unique<RequestMsg>(Record("1#2#"));
        record->size = size;
        Message::BaseServiceStateInfo info;
        EXPECT_NO_THROW(ProcMgrUnpackedBaseServiceStateRequest(record.get(), info));
        EXPECT_EQ(info.state, 2U);
    }
}

}  // namespace
}  // namespace ProcMgr::Serialization
