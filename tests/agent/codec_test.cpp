// The agent's codec against literal bytes, against the daemon's own encoder and decoder, and
// against input that is cut short or lies about its length.
#include "agent/codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "message/serialization.h"

namespace ProcMgr::Agent {
namespace {

using Message::AppStateInfo;
using Message::RequestMsg;
using testing::ElementsAreArray;

constexpr size_t RECORD_SIZE = 3984;
constexpr size_t PAYLOAD = 3964;

RequestMsg StateRecord(std::string_view text) {
    RequestMsg record;
    record.type = Message::APP_STATE_REPORT;
    record.size = text.size();
    std::memcpy(record.data, text.data(), text.size());
    return record;
}

TEST(AgentCodec, PipePath) {
    const std::pair<std::string, std::string> cases[] = {
        {"a.B-c_9", "/run/muxa/pipe/a.B-c_9"},
        {"../x", "/run/muxa/pipe/..%2Fx"},
        {"a b%\xC3\xBC", "/run/muxa/pipe/a%20b%25%C3%BC"},
        {std::string("a\0b", 3), "/run/muxa/pipe/a%00b"},
        {"", ""},
        {"..", ""},
        {std::string(92, 'a'), "/run/muxa/pipe/" + std::string(92, 'a')},
        {std::string(93, 'a'), ""},  // 108 characters leave no room for the terminator
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

TEST(AgentCodec, RefusesPacketsThatAreNone) {
    const RecordPacket good = EncodeRecordPacket(PacketKind::REQUEST, 1, RequestMsg{});
    for (size_t length = 0; length < good.size(); ++length) {
        // In memory of exactly its length, so that the address sanitizer sees a read past the end.
        const auto cut = std::make_unique<uint8_t[]>(length);
        std::copy_n(good.begin(), length, cut.get());
        const auto packet = DecodePacket({cut.get(), length});
        EXPECT_EQ(packet.has_value(), length >= PACKET_HEADER_SIZE) << length;
        EXPECT_FALSE(packet && DecodeRecord(packet->body)) << length;
    }
    const std::pair<size_t, uint8_t> changes[] = {
        {0, 'm'}, {1, 'u'}, {2, 'x'}, {3, 'a'}, {4, 0}, {4, 4}, {5, 1}, {7, 0x80},
    };
    for (const auto& [offset, value] : changes) {
        RecordPacket changed = good;
        changed[offset] = value;
        EXPECT_FALSE(DecodePacket(changed)) << offset << ": " << int{value};
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
    body[15] = 1;
    EXPECT_FALSE(DecodeRecord(body));
    body[15] = 0;
    EXPECT_TRUE(DecodeRecord(body));
    body.push_back(0);
    EXPECT_FALSE(DecodeRecord(body));
}

TEST(AgentCodec, StatesCutShortAtEveryByte) {
    const std::string text = "2#app_a#11#0#3#0#app_b#12#5#4#6#";
    for (size_t length = 0; length < text.size(); ++length) {
        EXPECT_FALSE(DecodeAppStates(StateRecord(text.substr(0, length)))) << length;
    }
    const auto items = DecodeAppStates(StateRecord(text));
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 2U);
    const AppStateInfo& second = (*items)[1];
    EXPECT_EQ((*items)[0].appName, "app_a");
    EXPECT_EQ(second.appName, "app_b");
    EXPECT_EQ((std::array{second.pid, second.gid, second.reportType, second.result}),
              (std::array{12U, 5U, 4U, 6U}));
}

TEST(AgentCodec, StatesThatAreNone) {
    EXPECT_TRUE(DecodeAppStates(StateRecord("0#")));
    EXPECT_TRUE(DecodeAppStates(StateRecord("1#a#1#2#3#4#later#")));
    for (const char* text :
         {"#", "x#", "-1#a#1#2#3#4#", "1#a#x#2#3#4#", "1#a#1#2#3#-4#", "1#a##2#3#4#",
          "1#a#4294967296#2#3#4#", "4294967295#a#1#2#3#4#", "18446744073709551617#a#1#2#3#4#"}) {
        EXPECT_FALSE(DecodeAppStates(StateRecord(text))) << text;
    }
    RequestMsg otherType = StateRecord("1#a#1#2#3#4#");
    otherType.type = Message::TERM_APP;
    EXPECT_FALSE(DecodeAppStates(otherType));
    RequestMsg liar = StateRecord("1#a#1#2#3#4#");
    liar.size = UINT64_MAX;
    EXPECT_FALSE(DecodeAppStates(liar));
}

TEST(AgentCodec, RefusesWhatTheDaemonWouldMisread) {
    const std::vector<std::string> most(1024);
    const std::vector<std::string> tooMany(1025);
    const struct {
        const char* what;
        Message::StartAppInfo item;
        bool isGood;
        bool isGoodForAccessManager;
    } cases[] = {
        {"1025 arguments", {"a", tooMany, {}}, false, false},
        {"an argument with a separator", {"a", {"x#y"}, {}}, false, false},
        {"index 3", {"a", {}, {{3, {"x"}}}}, false, true},
        {"three parameters", {"a", {}, {{-1, {}}, {0, {}}, {1, {}}}}, true, true},
        {"four parameters", {"a", {}, {{-1, {}}, {0, {}}, {1, {}}, {2, {}}}}, false, true},
        {"1024 arguments and values", {"a", most, {{2, most}}}, true, true},
        {"1025 values", {"a", {}, {{2, tooMany}}}, false, true},
        {"3955 bytes", {std::string(3950, 'x'), {}, {}}, true, true},
        {"3956 bytes", {std::string(3951, 'x'), {}, {}}, false, true},
    };
    for (const auto& [what, item, isGood, isGoodForAccessManager] : cases) {
        EXPECT_EQ(MakeStartRequests({{"good", {}, {}}, item}, true).has_value(), isGood) << what;
        const Message::RestartAppInfo restart{item.appName, item.argv, item.dynamicPara};
        EXPECT_EQ(MakeRestartRequests({restart}, false).has_value(), isGoodForAccessManager)
            << what;
    }
    EXPECT_TRUE(MakeTermRequests({})->empty());
    EXPECT_TRUE(MakeTermRequests({{std::string(3954, 'x')}}));
    EXPECT_FALSE(MakeTermRequests({{std::string(3955, 'x')}}));
    EXPECT_FALSE(MakeExecutionReport({"a#b", 1, 2, 0}));
    EXPECT_FALSE(MakeStartupCfgRequest(Message::LOAD_STARTUP_CFG, {{{"k", "#"}}, "/etc/x"}));
    EXPECT_FALSE(
        MakeStartupCfgRequest(Message::LOAD_STARTUP_CFG, {{}, std::string(PAYLOAD - 4, 'x')}));
}

TEST(AgentCodec, RefusesQueriesThatCannotBeAskedOrAnswered) {
    EXPECT_TRUE(MakeQuery({std::string(PAYLOAD - 12, 'x')}));
    EXPECT_FALSE(MakeQuery({std::string(PAYLOAD - 11, 'x')})) << "its answer is a byte too long";
    EXPECT_TRUE(MakeQuery(std::vector<std::string>(PAYLOAD / 5 - 1, "x"))) << "one entry answers";
    EXPECT_FALSE(MakeQuery(std::vector<std::string>(PAYLOAD / 5 + 1, "x")));
}

TEST(AgentCodec, TheDaemonReadsLongListsWholeAndInOrder) {
    std::vector<Message::RestartAppInfo> items(5000);
    for (size_t i = 0; i < items.size(); ++i) {
        items[i].appName = "application" + std::to_string(i);
        items[i].argv.assign(i % 4, "argument");
        items[i].dynamicPara = {{1, {"7"}}};
    }
    const auto records = MakeRestartRequests(items, true);
    ASSERT_TRUE(records);
    size_t at = 0;
    for (const RequestMsg& record : *records) {
        std::vector<Message::RestartAppInfo> read;
        Serialization::ProcMgrUnpackRestartRequest(&record, read, "owner");
        for (const auto& item : read) {
            ASSERT_LT(at, items.size());
            EXPECT_EQ(item.appName, items[at].appName);
            EXPECT_EQ(item.argv, items[at].argv);
            EXPECT_EQ(item.dynamicPara, items[at].dynamicPara);
            ++at;
        }
    }
    EXPECT_EQ(at, items.size());
}

TEST(AgentCodec, AnswersOfQueries) {
    const std::map<std::string, uint32_t> answer = {{"a", 0}, {"bcd", 1}, {"stopped", 2}};
    RequestMsg record;
    ASSERT_TRUE(Serialization::EncodeDetailStatus(answer, record));
    EXPECT_EQ(DecodeDetailStatus(record), answer);
    for (uint64_t size = 0; size < record.size; ++size) {
        RequestMsg cut = record;
        cut.size = size;
        EXPECT_FALSE(DecodeDetailStatus(cut)) << size;
    }
    record.type = Message::APP_STATE_REPORT;
    EXPECT_FALSE(DecodeDetailStatus(record));
}

}  // namespace
}  // namespace ProcMgr::Agent
