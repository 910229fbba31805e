// The agent's codec against literal bytes, against the daemon's own encoder and decoder, and
// against input that is cut short or lies about its length.
#include "agent/codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>

#include "message/serialization.h"

namespace ProcMgr::Agent {
namespace {

using Message::AppStateInfo;
using Message::RequestMsg;
using testing::ElementsAreArray;

constexpr size_t RECORD_SIZE = 3984;

RequestMsg StateRecord(std::string_view text) {
    RequestMsg record;
    record.type = Message::APP_STATE_REPORT;
    record.size = text.size();
    std::memcpy(record.data, text.data(), text.size());
    return record;
}

// In memory of exactly its length, so that the address sanitizer sees a read past the end.
struct Exact {
    std::unique_ptr<uint8_t[]> bytes;
    size_t size;
    Exact(const uint8_t* from, size_t length) : bytes(new uint8_t[length]), size(length) {
        std::copy_n(from, length, bytes.get());
    }
    std::span<const uint8_t> Span() const { return {bytes.get(), size}; }
};

bool Equal(const AppStateInfo& a, const AppStateInfo& b) {
    return a.appName == b.appName && a.pid == b.pid && a.gid == b.gid &&
           a.reportType == b.reportType && a.result == b.result;
}

TEST(AgentCodec, PipePath) {
    const std::string longest = std::string("/run/muxa/pipe/") + std::string(92, 'a');
    const struct {
        std::string name;
        std::string path;
    } cases[] = {
        {"zornmgr", "/run/muxa/pipe/zornmgr"},
        {"a.B-c_9", "/run/muxa/pipe/a.B-c_9"},
        {"../x", "/run/muxa/pipe/..%2Fx"},
        {"a b%\xC3\xBC", "/run/muxa/pipe/a%20b%25%C3%BC"},
        {std::string("a\0b", 3), "/run/muxa/pipe/a%00b"},
        {"", ""},
        {".", ""},
        {"..", ""},
        {std::string(92, 'a'), longest},
        {std::string(93, 'a'), ""},  // 108 characters leave no room for the terminator
        {std::string(128, 'a'), ""},
    };
    for (const auto& [name, path] : cases) {
        EXPECT_EQ(PipePath(name), path) << name;
    }
}

TEST(AgentCodec, StateReportHasTheseBytes) {
    const RecordPacket packet = EncodeRecordPacket(PacketKind::CALL, 0x1122334455667788,
                                                   MakeStateReport(BaseServiceStateType::RUNNING));
    ASSERT_EQ(packet.size(), PACKET_HEADER_SIZE + RECORD_SIZE);
    std::vector<uint8_t> expected = {'M',  'U',  'X',  'A',  2,    0,    0,    0,     // magic, kind
                                     0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // sequence
                                     3,    0,    0,    0,    0,    0,    0,    0,     // type, gap
                                     4,    0,    0,    0,    0,    0,    0,    0,     // size
                                     '1',  '#',  '2',  '#'};
    expected.resize(packet.size());
    EXPECT_THAT(packet, ElementsAreArray(expected));
}

TEST(AgentCodec, TheDaemonReadsStateReports) {
    for (const auto state : {BaseServiceStateType::INIT, BaseServiceStateType::RESTARTING,
                             BaseServiceStateType::RUNNING, BaseServiceStateType::TERMINATING}) {
        const RequestMsg record = MakeStateReport(state);
        Message::BaseServiceStateInfo info{.state = 77};
        Serialization::ProcMgrUnpackedBaseServiceStateRequest(&record, info);
        EXPECT_EQ(info.state, static_cast<uint32_t>(state));
    }
}

TEST(AgentCodec, RecordsComeBackWhole) {
    RequestMsg record;
    record.type = 0xFEDCBA98;
    record.size = Message::PM_PIPE_BUF_MAX;
    std::iota(std::begin(record.data), std::end(record.data), uint8_t{1});

    const RecordPacket bytes = EncodeRecordPacket(PacketKind::RESPONSE, UINT64_MAX, record);
    const auto packet = DecodePacket(bytes);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->kind, PacketKind::RESPONSE);
    EXPECT_EQ(packet->sequence, UINT64_MAX);
    const auto decoded = DecodeRecord(packet->body);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->type, record.type);
    EXPECT_EQ(decoded->size, record.size);
    EXPECT_THAT(decoded->data, ElementsAreArray(record.data));
}

TEST(AgentCodec, RefusesPacketsThatAreNone) {
    const RecordPacket good = EncodeRecordPacket(PacketKind::REQUEST, 1, RequestMsg{});
    for (size_t length = 0; length < good.size(); ++length) {
        const Exact cut(good.data(), length);
        const auto packet = DecodePacket(cut.Span());
        EXPECT_EQ(packet.has_value(), length >= PACKET_HEADER_SIZE) << length;
        EXPECT_FALSE(packet && DecodeRecord(packet->body)) << length;
    }
    const struct {
        size_t offset;
        uint8_t value;
        bool isGood;
    } changes[] = {
        {0, 'm', false}, {1, 'u', false}, {2, 'x', false},  {3, 'a', false},
        {4, 0, false},   {4, 1, true},    {4, 2, true},     {4, 3, true},
        {4, 4, false},   {5, 1, false},   {7, 0x80, false},
    };
    for (const auto& [offset, value, isGood] : changes) {
        RecordPacket changed = good;
        changed[offset] = value;
        EXPECT_EQ(DecodePacket(changed).has_value(), isGood) << offset << ": " << int{value};
    }
    std::vector<uint8_t> large(good.begin(), good.end());
    large.resize(PACKET_MAX);
    EXPECT_TRUE(DecodePacket(large));
    large.push_back(0);
    EXPECT_FALSE(DecodePacket(large));
}

TEST(AgentCodec, RefusesRecordsThatAreNotOneRecord) {
    std::vector<uint8_t> body(RECORD_SIZE);
    body[8] = 0x7C;  // 3964
    body[9] = 0x0F;
    EXPECT_TRUE(DecodeRecord(body));
    body[8] = 0x7D;
    EXPECT_FALSE(DecodeRecord(body));
    body[8] = 0;
    body[9] = 0;
    body[15] = 1;
    EXPECT_FALSE(DecodeRecord(body));
    body[15] = 0;
    body.push_back(0);
    EXPECT_FALSE(DecodeRecord(body));
}

TEST(AgentCodec, StatesThatTheDaemonEncoded) {
    std::vector<AppStateInfo> infos = {
        {"vintor", 42, 7, TERMINATED_ABNORMAL_EXIT, 2},
        {"", 0, 0, 0, 0},
        {std::string(127, 'n'), UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX}};
    for (uint32_t i = 0; i < 500; ++i) {
        infos.push_back({"app" + std::to_string(i), i, i + 1, i % 5, i + 2});
    }
    std::vector<std::pair<uint32_t, std::string>> pieces;
    std::vector<RequestMsg> records;
    ASSERT_TRUE(Serialization::ProcMgrPackAppStateRequest(infos, pieces));
    ASSERT_TRUE(Serialization::ProcMgrCombinePiecesMsg(Message::APP_STATE_REPORT, pieces, records));
    ASSERT_GT(records.size(), 1U);

    std::vector<AppStateInfo> decoded;
    for (const RequestMsg& record : records) {
        const auto items = DecodeAppStates(record);
        ASSERT_TRUE(items);
        decoded.insert(decoded.end(), items->begin(), items->end());
    }
    EXPECT_TRUE(
        std::is_permutation(infos.begin(), infos.end(), decoded.begin(), decoded.end(), Equal));
}

TEST(AgentCodec, StatesCutShortAtEveryByte) {
    const std::string text = "2#app_a#11#0#3#0#app_b#12#5#4#6#";
    for (size_t length = 0; length < text.size(); ++length) {
        EXPECT_FALSE(DecodeAppStates(StateRecord(text.substr(0, length)))) << length;
    }
    const auto items = DecodeAppStates(StateRecord(text));
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 2U);
    EXPECT_TRUE(Equal((*items)[0], {"app_a", 11, 0, TERMINATED_NORMAL_EXIT, 0}));
    EXPECT_TRUE(Equal((*items)[1], {"app_b", 12, 5, TERMINATED_ABNORMAL_EXIT, 6}));
}

TEST(AgentCodec, StatesThatAreNone) {
    EXPECT_TRUE(DecodeAppStates(StateRecord("0#")));
    EXPECT_TRUE(DecodeAppStates(StateRecord("1#a#1#2#3#4#later#")));
    for (const char* text :
         {"", "#", "1", "x#", "-1#a#1#2#3#4#", "1#a#x#2#3#4#", "1#a#1#2#3#-4#", "1#a##2#3#4#",
          "1#a#1 #2#3#4#", "1#a#4294967296#2#3#4#", "2#a#1#2#3#4#", "4294967295#a#1#2#3#4#",
          "18446744073709551617#a#1#2#3#4#"}) {
        EXPECT_FALSE(DecodeAppStates(StateRecord(text))) << text;
    }
    RequestMsg otherType = StateRecord("1#a#1#2#3#4#");
    otherType.type = Message::TERM_APP;
    EXPECT_FALSE(DecodeAppStates(otherType));
    RequestMsg liar = StateRecord("1#a#1#2#3#4#");
    liar.size = UINT64_MAX;
    EXPECT_FALSE(DecodeAppStates(liar));
}

}  // namespace
}  // namespace ProcMgr::Agent
