// The daemon's operations on records: limits, log lines, and payloads that are cut short, hostile
// or not what the daemon expects.
#include "message/serialization.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <sstream>

#include "message/record_codec.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr::Serialization {
namespace {

using namespace std::string_literals;
using Fakes::LogCapture;
using Message::PM_PIPE_BUF_MAX;
using Message::RequestMsg;
using Items = std::vector<Message::StartAppInfo>;
using Lines = std::vector<Fakes::LogLine>;
using Pieces = std::vector<std::pair<uint32_t, std::string>>;
using Texts = std::vector<std::string>;

const Items OLD = {{"old", {"old"}, {}}};
const std::string UNPACK = "ProcMgr : ProcMgrMaster unpack request failed, ";

RequestMsg Record(const std::string& payload) {
    return Message::MakeRecord(Message::START_APP, payload);
}

// The payload, which must be followed by nothing but zeros.
std::string Payload(const RequestMsg& record) {
    EXPECT_TRUE(std::all_of(record.data + record.size, std::end(record.data),
                            [](uint8_t byte) { return byte == 0; }));
    return {reinterpret_cast<const char*>(record.data), record.size};
}

// The items of a request that are read over those of OLD.
Items Start(const std::string& payload, const std::string& sender = "owner",
            decltype(&ProcMgrUnpackStartRequest) unpack = ProcMgrUnpackStartRequest) {
    Items items = OLD;
    const RequestMsg record = Record(payload);
    unpack(&record, items, sender);
    return items;
}

std::string Repeat(const std::string& text, size_t times) {
    std::string all;
    for (size_t i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

class SerializationTest : public testing::Test {
protected:
    void SetUp() override { LogCapture::Clear(); }
};

TEST_F(SerializationTest, PacksReportsOfAtMost3959Bytes) {
    const std::string rest = "#1#2#3#4#";
    const std::string longest(3959 - rest.size(), 'n');
    Pieces pieces{{3, "old"}};
    EXPECT_TRUE(ProcMgrPackAppStateRequest({{longest, 1, 2, 3, 4}, {"", 1, 2, 3, 4}}, pieces));
    EXPECT_EQ(pieces, (Pieces{{3, "old"}, {3959, longest + rest}, {9, rest}}));
    EXPECT_FALSE(ProcMgrPackAppStateRequest({{longest + "n", 1, 2, 3, 4}}, pieces));
    EXPECT_TRUE(LogCapture::Contains(3, "ProcMgrAgent : PackAppStateRequest failed=" + longest +
                                            "n" + rest +
                                            ", size=3960 bytes beyond the PM_PIPE_BUF_MAX!!"));
}

TEST_F(SerializationTest, GathersPiecesInOrderOfLength) {
    const auto piece = [](uint32_t length, char letter) {
        return std::pair(length, std::string(length, letter));
    };
    const std::pair<Pieces, Texts> cases[] = {
        {{piece(2000, 'l'), piece(1955, 'm'), piece(2, 's'), piece(2, 'a')},
         {"3#aass" + std::string(1955, 'm'), "1#" + std::string(2000, 'l')}},
        {{piece(2000, 'l'), piece(1956, 'm')},
         {"1#" + std::string(1956, 'm'), "1#" + std::string(2000, 'l')}},
        {{piece(3956, 'x'), piece(3955, 'l')}, {"1#" + std::string(3955, 'l')}},
        {Pieces(2500, piece(1, 'a')), {"2500#" + std::string(2500, 'a')}},
    };
    for (const auto& [given, payloads] : cases) {
        Pieces pieces = given;
        std::vector<RequestMsg> records(1);
        EXPECT_TRUE(ProcMgrCombinePiecesMsg(Message::APP_STATE_REPORT, pieces, records));
        ASSERT_EQ(records.size(), payloads.size() + 1);
        for (size_t i = 0; i < payloads.size(); ++i) {
            EXPECT_EQ(records[i + 1].type, 4U);
            EXPECT_EQ(Payload(records[i + 1]), payloads[i]);
        }
    }
    Pieces nothing;
    std::vector<RequestMsg> records;
    EXPECT_FALSE(ProcMgrCombinePiecesMsg(Message::APP_STATE_REPORT, nothing, records));
    const Lines lines = {{4, "ProcMgrAgent : packedRequest=3956 bytes beyond the PM_PIPE_BUF_MAX!"},
                         {3, "CombinePiecesMsg failed: packedRequest is empty!!"}};
    EXPECT_EQ(LogCapture::Lines(), lines);

    // A body that does not fit makes a record all the same.
    ProcMgrCombineMsg(Message::TERM_APP, 1, std::string(3962, 'x'), records);
    EXPECT_EQ(LogCapture::Lines(), lines);
    ProcMgrCombineMsg(Message::TERM_APP, 1, std::string(3963, 'x'), records);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(Payload(records[0]), "1#" + std::string(3962, 'x'));
    EXPECT_EQ(records[1].size, 3965U);
    EXPECT_TRUE(LogCapture::ContainsPart(
        3, "ProcMgrCombineMsg failed memcpy_s failed: strSize=3965 bytes, ret="));
}

TEST_F(SerializationTest, ReadsStartAndRestartRequests) {
    const Message::StartAppInfo a{"a", {}, {}};
    const std::string big = "ProcMgr : ProcMgrMaster : UnpackStartRequest err, argvSize=";
    const std::string value = UNPACK + "dynamicPara index=0, valueNum=";
    const struct {
        std::string payload;
        Items items;
        std::string log;  // of a start request, at level 3; empty for no line
        const char* sender = "owner";
    } cases[] = {
        {"2#a#1#x#b#0#", {{"a", {"x"}, {}}, {"b", {}, {}}}, "", "zornmgr"},
        {"2#a#1#x#b#0#", {{"a", {"x"}, {}}, {}}, "", "zornmgr2"},  // "b": 0 parameters
        {"1#a#0#2#-1#1#x#-2147483648#1#y#", {{"a", {}, {{-1, {"x"}}, {INT32_MIN, {"y"}}}}}, ""},
        {"1#a#0#3#0#1#x#1#0#2#1#z#", {{"a", {}, {{0, {"x"}}, {2, {"z"}}}}}, ""},
        {"2#a#0#4#b#0#0#", {a, {}}, UNPACK + "dynamicParaSize=4 invalid"},
        {"2#a#0#2#2#1#x#3#0#b#0#0#",
         {{"a", {}, {{2, {"x"}}}}, {}},
         UNPACK + "dynamicPara index=3 invalid"},
        {"1#a#0#1#99999999999#", {a}, UNPACK + "dynamicPara index=2147483647 invalid"},
        {"1#a#0#1#0#1025#", {a}, value + "1025 invalid"},
        {"1#a#0#1#0#-2#", {a}, value + "18446744073709551614 invalid"},
        // After too many arguments the next item is read from the bytes after their number.
        {"2#a#1025#b#0#0#", {a, {"b", {}, {}}}, big + "1025"},
        {"1#a#4294967296#", {a}, big + "4294967295"},
        // Numbers are read as a stream reads them, with the one character after each of them.
        {" \t+1xa#\n01#v#0#", {{"a", {"v"}, {}}}, ""},
        {"1##a#0#0#", {{}}, ""},
        {"1#a#3#x#y", {{"a", {"x", "y", ""}, {}}}, ""},
        {"x#a#0#0#", {}, ""},
        {"", {}, ""},
    };
    for (const auto& test : cases) {
        std::string log = test.log;
        for (const auto unpack : {ProcMgrUnpackStartRequest, ProcMgrUnpackRestartRequest}) {
            LogCapture::Clear();
            EXPECT_EQ(Start(test.payload, test.sender, unpack), test.items) << test.payload;
            EXPECT_EQ(LogCapture::Lines(), log.empty() ? Lines() : Lines({{3, log}}));
            if (const size_t name = log.find("StartRequest"); name != std::string::npos) {
                log.replace(name, 5, "Restart");
            }
        }
    }
}

TEST_F(SerializationTest, TakesListsUpToTheirLimits) {
    EXPECT_EQ(Start("1#a#1024#" + Repeat("v#", 1024) + "0#").at(0).argv, Texts(1024, "v"));
    EXPECT_EQ(Start("1#a#0#1#2#1024#" + Repeat("v#", 1024)).at(0).dynamicPara.at(2),
              Texts(1024, "v"));
    EXPECT_EQ(Start("1999#a#0#0#").size(), 1999U);
    std::vector<Message::TermAppInfo> terms;
    RequestMsg record = Record("1999#" + Repeat("a#", 1979));
    ProcMgrUnpackTermRequest(&record, terms);
    ASSERT_EQ(terms.size(), 1999U);
    EXPECT_EQ(terms[1978].appName + terms[1979].appName, "a");

    for (const auto& [written, count] :
         {std::pair{"2000", "2000"}, {"-1", "4294967295"}, {"42949672961", "4294967295"}}) {
        LogCapture::Clear();
        const std::string payload = written + "#a#0#0#"s;
        EXPECT_EQ(Start(payload), OLD);
        EXPECT_EQ(Start(payload, "owner", ProcMgrUnpackRestartRequest), OLD);
        record = Record(payload);
        ProcMgrUnpackTermRequest(&record, terms);
        EXPECT_EQ(terms.size(), 1999U);
        const std::string start = "ProcMgr : ProcMgrMaster ";
        const Lines lines = {
            {3, start + "UnpackStartRequest err: big startAppListSize=" + count},
            {3, start + "UnpackRestartRequest err: big restartAppListSize=" + count},
            {3, start + "UnpackTermRequest err: big AppListSize=" + count}};
        EXPECT_EQ(LogCapture::Lines(), lines);
    }
}

TEST_F(SerializationTest, ReadsADynamicBlockOutOfAStream) {
    for (const auto& [payload, isUsable] :
         {std::pair{"skip#1#0#1#x#next#", true}, {"skip#1#3#next#", false}}) {
        std::istringstream in(payload);
        std::string text;
        std::getline(in, text, '#');
        std::map<int, Texts> block{{7, {"old"}}};
        EXPECT_EQ(UnPackDynamicPara(in, block), isUsable) << payload;
        EXPECT_EQ(block.count(7), 0U);
        std::getline(in, text, '#');
        EXPECT_EQ(text, "next") << payload;
    }
}

// The fields after the cut are missing; the others do not change.
TEST_F(SerializationTest, ReadsARequestThatEndsAnywhere) {
    const std::string whole = "2#app_a#2#-v#--x=1#2#0#1#/bin/a#2#2#K=V#L=#app_b#0#0#";
    const Items items = {{"app_a", {"-v", "--x=1"}, {{0, {"/bin/a"}}, {2, {"K=V", "L="}}}},
                         {"app_b", {}, {}}};
    EXPECT_EQ(Start(whole), items);
    for (size_t length = 2; length <= whole.size(); ++length) {
        const Items cut = Start(whole.substr(0, length));
        ASSERT_EQ(cut.size(), 2U) << length;
        EXPECT_EQ(cut[0].appName, whole.substr(2, std::min<size_t>(length - 2, 5)));
        EXPECT_EQ(cut[0].argv.size(), length > 8 ? 2U : 0U) << length;
        EXPECT_EQ(cut[0].dynamicPara.contains(0), length > whole.find("1#/bin")) << length;
        EXPECT_EQ(cut[1].appName.empty(), length <= whole.find("app_b")) << length;
    }
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(SerializationTest, FieldsThatAReportDoesNotHaveKeepTheirValue) {
    Message::BaseServiceStateInfo state{7};
    RequestMsg record = Record("1#");
    ProcMgrUnpackedBaseServiceStateRequest(&record, state);
    EXPECT_EQ(state.state, 7U);
    record = Record("9#app#12#34");
    Message::AppExecInfo info{"old", 5, 6, 7};
    ProcMgrUnpackedAppExecInfoRequest(&record, info);
    EXPECT_EQ(info, (Message::AppExecInfo{"app", 12, 34, 7}));
}

TEST_F(SerializationTest, ReadsAStartupConfigurationRequest) {
    const std::pair<const char*, std::map<std::string, std::string>> cases[] = {
        {"1#/cfg#3#k#first#k#second#l##", {{"k", "first"}, {"l", ""}}},
        {"1#/cfg#0#k#v#", {}},
        {"1#/cfg#102399#k#v#l", {{"k", "v"}, {"l", ""}}},
        {"1#/cfg#102400#k#v#", {}},
        {"1#/cfg", {}},
    };
    for (const auto& [payload, pairs] : cases) {
        Message::StartupCfgInfo info{{{"old", "old"}}, ""};
        const RequestMsg record = Record(payload);
        ProcMgrUnpackMatchDataAndPathRequest(&record, info);
        EXPECT_EQ(info, (Message::StartupCfgInfo{pairs, "/cfg"})) << payload;
    }
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(SerializationTest, NeitherSizeNorCountsCostMoreThanTheLimits) {
    const std::string full = "1999#a#1024#" + Repeat("v", PM_PIPE_BUF_MAX - 12);
    for (const uint64_t size : {uint64_t{3965}, uint64_t{1} << 40, UINT64_MAX}) {
        // On the heap, so that the address sanitizer finds a read after the record.
        const auto record = std::make_unique<RequestMsg>(Record(full));
        record->size = size;
        Items items;
        ProcMgrUnpackStartRequest(record.get(), items, "owner");
        ASSERT_EQ(items.size(), 1999U);
        EXPECT_EQ(items[0].argv.at(0).size(), PM_PIPE_BUF_MAX - 12);
        EXPECT_EQ(items[0].argv.size(), 1024U);
        // The lists of items after the end of the payload are empty.
        EXPECT_TRUE(std::all_of(items.begin() + 1, items.end(), [](const auto& item) {
            return item.argv.empty() && item.dynamicPara.empty();
        }));
    }
    // At most 400 us of the processor for each record.
    const RequestMsg record = Record("1#/cfg#102399#k#");
    Message::StartupCfgInfo info;
    const std::clock_t begin = std::clock();
    for (int i = 0; i < 50; ++i) {
        ProcMgrUnpackMatchDataAndPathRequest(&record, info);
    }
    EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC / 50);
}

}  // namespace
}  // namespace ProcMgr::Serialization
