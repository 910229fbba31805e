// The record codecs: exact payloads in both directions, limits of the encoders, and hostile input
// of the decoders on the owner's side.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "message/delay_core_affinity.h"
#include "message/record_codec.h"
#include "message/report_codec.h"
#include "message/request_codec.h"

namespace ProcMgr::Message {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using Texts = std::vector<std::string>;
using Statuses = std::map<std::string, uint32_t>;

struct Row {
    RequestType type;
    std::string payload;
    std::function<std::optional<Records>()> encode;
    // True when the record decodes to the value that was encoded.
    std::function<bool(const RequestMsg&)> decodes;
    bool isCutRefused = false;  // a payload without its end is refused
};

std::optional<Records> One(const std::optional<RequestMsg>& record) {
    return record ? std::optional(Records{*record}) : std::nullopt;
}

// `decode` fills a value in.
template <typename Value, typename Decode>
std::function<bool(const RequestMsg&)> Fills(Value expected, Decode decode) {
    return [=](const RequestMsg& record) {
        Value value{};
        decode(record, value);
        return value == expected;
    };
}

Row LaunchRow(RequestType type, std::string payload, std::vector<StartAppInfo> items,
              std::string sender) {
    return {type, std::move(payload), [=] { return EncodeLaunchRequests(type, items, sender); },
            Fills(items, [=](const RequestMsg& record, auto& out) {
                EXPECT_TRUE(DecodeLaunchRequest(record, sender, out).empty());
            })};
}

Row CfgRow(RequestType type, std::string payload, const StartupCfgInfo& info) {
    return {type, std::move(payload), [=] { return One(EncodeStartupCfgRequest(type, info)); },
            Fills(info, DecodeStartupCfgRequest)};
}

std::vector<Row> Rows() {
    const std::vector<TermAppInfo> terms = {{"app_a"}, {"app_b"}};
    const AppExecInfo execution{"b", 1, 2, UINT32_MAX};
    const Texts names = {"a#\0z"s, ""};
    const std::vector<AppStateInfo> states = {{"app_a", 11, 0, 3, 0}, {"", UINT32_MAX, 5, 4, 6}};
    const Statuses statuses = {{"B2", 0x01020304}, {"b", 1}};
    return {
        LaunchRow(START_APP, "2#a#2#-v#x y#3#-1#1##0#1#/bin/a#2#2#K=V#L=W#b#0#0#",
                  {{"a", {"-v", "x y"}, {{-1, {""}}, {0, {"/bin/a"}}, {2, {"K=V", "L=W"}}}},
                   {"b", {}, {}}},
                  "owner"),
        LaunchRow(RESTART_APP, "2#a#1#-v#b#0#", {{"a", {"-v"}, {}}, {"b", {}, {}}}, "zornmgr"),
        {TERM_APP, "2#app_a#app_b#", [=] { return EncodeTermRequests(terms); },
         Fills(terms, DecodeTermRequest)},
        {BASESERVICE_STATE_REPORT, "1#2#",
         [] { return One(EncodeStateReport(BaseServiceStateType::RUNNING)); },
         [](const RequestMsg& record) {
             BaseServiceStateInfo info;
             DecodeStateReport(record, info);
             return info.state == 2;
         }},
        {APP_EXECUTION_REPORT, "1#b#1#2#4294967295#",
         [=] { return One(EncodeExecutionReport(execution)); },
         Fills(execution, DecodeExecutionReport)},
        CfgRow(LOAD_STARTUP_CFG, "1#/x#2#k#v#l##", {{{"k", "v"}, {"l", ""}}, "/x"}),
        CfgRow(RELOAD_STARTUP_CFG, "1#/x#0#", {{}, "/x"}),
        {QUERY_APP_STATE, "\2\0\0\0\4\0\0\0a#\0z\0\0\0\0"s, [=] { return One(EncodeQuery(names)); },
         [=](const RequestMsg& record) { return DecodeQuery(record) == names; }, true},
        {APP_STATE_REPORT, "2#app_a#11#0#3#0##4294967295#5#4#6#",
         [=] {
             const std::string items = EncodeAppState(states[0]) + EncodeAppState(states[1]);
             return One(MakeRecord(APP_STATE_REPORT, PayloadOf(ItemGroup{2, items})));
         },
         [=](const RequestMsg& record) { return DecodeAppStates(record) == states; }, true},
        {APP_DETAIL_STATUS_REPORT, "\2\0\0\0\2\0\0\0B2\4\3\2\1\1\0\0\0b\1\0\0\0"s,
         [=] { return One(EncodeDetailStatus(statuses)); },
         [=](const RequestMsg& record) { return DecodeDetailStatus(record) == statuses; }, true},
    };
}

TEST(RecordCodec, PayloadsInBothDirections) {
    for (const Row& row : Rows()) {
        const auto records = row.encode();
        ASSERT_TRUE(records && records->size() == 1U) << row.payload;
        EXPECT_EQ(records->front().type, row.type);
        EXPECT_EQ(PayloadOf(records->front()), row.payload);
        EXPECT_TRUE(row.decodes(records->front())) << row.payload;
        for (size_t length = 0; row.isCutRefused && length < row.payload.size(); ++length) {
            EXPECT_FALSE(row.decodes(MakeRecord(row.type, row.payload.substr(0, length))));
        }
        if (row.isCutRefused) {
            EXPECT_TRUE(row.decodes(MakeRecord(row.type, row.payload + "later")));
        }
    }
}

TEST(RecordCodec, BytesInBothDirections) {
    std::vector<uint8_t> bytes = {3,   0,   0,   0,  0, 0, 0, 0,  // type, gap
                                  4,   0,   0,   0,  0, 0, 0, 0,  // size
                                  '1', '#', '2', '#'};
    bytes.resize(3984);
    EXPECT_THAT(EncodeRecord(EncodeStateReport(BaseServiceStateType::RUNNING)),
                testing::ElementsAreArray(bytes));
    bytes[4] = bytes.back() = 0xFF;  // the gaps are not read
    auto record = DecodeRecord(bytes);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->type, BASESERVICE_STATE_REPORT);
    EXPECT_EQ(PayloadOf(*record), "1#2#");

    std::fill_n(bytes.begin() + 8, 8, uint8_t{0xFF});
    record = DecodeRecord(bytes);
    EXPECT_EQ(record->size, UINT64_MAX);
    EXPECT_EQ(PayloadOf(*record).size(), PM_PIPE_BUF_MAX) << "no more than the record has";
    for (const RequestType type : {APP_STATE_REPORT, APP_DETAIL_STATUS_REPORT}) {
        record->type = type;
        EXPECT_FALSE(DecodeAppStates(*record) || DecodeDetailStatus(*record));
    }
    bytes.push_back(0);
    EXPECT_FALSE(DecodeRecord(bytes));
    EXPECT_FALSE(DecodeRecord(std::span(bytes).first(3983)));

    // `reserved` is not sent.
    const auto delay = EncodeDelayRequest({DELAY_RESET, -1, 1, 9, 0x01020304});
    EXPECT_THAT(delay, ElementsAre(1, 0xFF, 1, 0, 4, 3, 2, 1));
    const DelayCoreAffinityReq request = DecodeDelayRequest(delay);
    EXPECT_EQ(request.state, DELAY_RESET);
    EXPECT_EQ(request.checkNum, -1);
    EXPECT_EQ(request.isWakeUpEnable, 1);
    EXPECT_EQ(request.checkInterval, 0x01020304U);
    EXPECT_THAT(EncodeDelayResult(DELAY_BUSY), ElementsAre(0x0B, 0x03, 0xF1, 0));
    EXPECT_EQ(DecodeDelayResult(EncodeDelayResult(DELAY_BUSY)), DELAY_BUSY);
    EXPECT_FALSE(DecodeDelayResult(delay));
}

TEST(RecordCodec, StateReportsThatTheDaemonDoesNotWriteAreRefused) {
    EXPECT_TRUE(DecodeAppStates(MakeRecord(APP_STATE_REPORT, "0#")));
    for (const char* text :
         {"#", "x#", "-1#a#1#2#3#4#", "1#a#x#2#3#4#", "1#a#1#2#3#-4#", "1#a##2#3#4#",
          "1#a#4294967296#2#3#4#", "4294967295#a#1#2#3#4#", "18446744073709551617#a#1#2#3#4#"}) {
        EXPECT_FALSE(DecodeAppStates(MakeRecord(APP_STATE_REPORT, text))) << text;
    }
    EXPECT_FALSE(DecodeAppStates(MakeRecord(TERM_APP, "1#a#1#2#3#4#")));
    EXPECT_FALSE(DecodeDetailStatus(MakeRecord(QUERY_APP_STATE, "\0\0\0\0"s)));
}

TEST(RecordCodec, QueriesThatPromiseMoreThanTheyHaveAreRefused) {
    const auto names = [](const std::string& payload) {
        return DecodeQuery(MakeRecord(QUERY_APP_STATE, payload));
    };
    const std::string empty(990 * 4, '\0');
    EXPECT_EQ(names("\xDE\3\0\0"s + empty), Texts(990));
    EXPECT_FALSE(names("\xDF\3\0\0"s + empty)) << "991 names";
    EXPECT_FALSE(names("\xFF\xFF\xFF\xFF\0\0\0\0"s));
    EXPECT_FALSE(names("\1\0\0\0\xFF\xFF\xFF\xFF"s + "a"));
}

TEST(RecordCodec, WhatTheDaemonWouldMisreadIsNotEncoded) {
    const Texts most(1024);
    const Texts tooMany(1025);
    const struct {
        const char* what;
        StartAppInfo item;
        bool isGood;
        bool isGoodForAccessManager;
    } cases[] = {
        {"1025 arguments", {"a", tooMany, {}}, false, false},
        {"an argument with a separator", {"a", {"x#y"}, {}}, false, false},
        {"index 3", {"a", {}, {{3, {"x"}}}}, false, true},
        {"four parameters", {"a", {}, {{-1, {}}, {0, {}}, {1, {}}, {2, {}}}}, false, true},
        {"1024 arguments and values", {"a", most, {{2, most}}}, true, true},
        {"1025 values", {"a", {}, {{2, tooMany}}}, false, true},
        {"3955 bytes", {std::string(3950, 'x'), {}, {}}, true, true},
        {"3956 bytes", {std::string(3951, 'x'), {}, {}}, false, true},
    };
    for (const auto& [what, item, isGood, isGoodForAccessManager] : cases) {
        const std::vector<StartAppInfo> items = {{"good", {}, {}}, item};
        EXPECT_EQ(EncodeLaunchRequests(START_APP, items, "owner").has_value(), isGood) << what;
        EXPECT_EQ(EncodeLaunchRequests(START_APP, items, "zornmgr").has_value(),
                  isGoodForAccessManager)
            << what;
    }
    EXPECT_TRUE(EncodeTermRequests({})->empty());
    EXPECT_FALSE(EncodeTermRequests({{std::string(3955, 'x')}}));
    EXPECT_FALSE(EncodeExecutionReport({"a#b", 1, 2, 0}));
    EXPECT_FALSE(EncodeStartupCfgRequest(LOAD_STARTUP_CFG, {{{"k", "#"}}, "/etc/x"}));
    EXPECT_FALSE(EncodeStartupCfgRequest(LOAD_STARTUP_CFG, {{}, std::string(3960, 'x')}));

    const size_t room = PM_PIPE_BUF_MAX - 12;
    EXPECT_TRUE(EncodeDetailStatus({{std::string(room, 'n'), 1}}));
    EXPECT_FALSE(EncodeDetailStatus({{std::string(room - 8, 'n'), 1}, {"x", 1}}));
    EXPECT_TRUE(EncodeQuery({std::string(room, 'x')}));
    EXPECT_FALSE(EncodeQuery({std::string(room + 1, 'x')})) << "the answer is a byte too long";
    EXPECT_TRUE(EncodeQuery(Texts(PM_PIPE_BUF_MAX / 5 - 1, "x"))) << "the answer has one entry";
    EXPECT_FALSE(EncodeQuery(Texts(PM_PIPE_BUF_MAX / 5 + 1, "x")));
}

TEST(RecordCodec, LongListsArriveWholeAndInOrder) {
    std::vector<StartAppInfo> items(5000);
    for (size_t i = 0; i < items.size(); ++i) {
        items[i].appName = "application" + std::to_string(i);
        items[i].argv.assign(i % 4, "argument");
    }
    // Of the empty items more fit into one record than the daemon accepts.
    for (const auto& sent : {items, std::vector<StartAppInfo>(5000)}) {
        const auto records = EncodeLaunchRequests(RESTART_APP, sent, "zornmgr");
        std::vector<StartAppInfo> received;
        for (const RequestMsg& record : records.value()) {
            std::vector<StartAppInfo> some;
            EXPECT_TRUE(DecodeLaunchRequest(record, "zornmgr", some).empty());
            received.insert(received.end(), some.begin(), some.end());
        }
        EXPECT_TRUE(received == sent);
    }
}

}  // namespace
}  // namespace ProcMgr::Message
