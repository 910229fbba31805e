// The record codecs: exact payloads in both directions, limits of the encoders, and hostile input
// of the decoders on the owner's side.
#include <gmock/gmock.h>

#include <algorithm>

#include "message/delay_core_affinity.h"
#include "message/record_codec.h"
#include "message/report_codec.h"
#include "message/request_codec.h"

namespace ProcMgr::Message {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

// Expects one record with this type and payload, from which `decode` fills in the value.
template <typename Value, typename Decode>
void Expect(RequestType type, std::string_view payload, const Records& encoded,
            const Value& expected, Decode decode) {
    ASSERT_EQ(encoded.size(), 1U) << payload;
    EXPECT_EQ(encoded[0].type, type);
    EXPECT_EQ(PayloadOf(encoded[0]), payload);
    Value value{};
    decode(encoded[0], value);
    EXPECT_EQ(value, expected) << payload;
}

// As above, for a `decode` that returns the value and refuses a payload without its end.
template <typename Value, typename Decode>
void ExpectRefusingCuts(RequestType type, const std::string& payload, const RequestMsg& encoded,
                        const Value& expected, Decode decode) {
    Expect(type, payload, {encoded}, std::optional(expected),
           [=](const RequestMsg& record, auto& out) { out = decode(record); });
    for (size_t length = 0; length < payload.size(); ++length) {
        EXPECT_FALSE(decode(MakeRecord(type, payload.substr(0, length)))) << payload;
    }
    EXPECT_EQ(decode(MakeRecord(type, payload + "later")), expected);
}

void ExpectLaunch(RequestType type, std::string_view payload,
                  const std::vector<StartAppInfo>& items, std::string_view sender) {
    Expect(type, payload, EncodeLaunchRequests(type, items, sender).value(), items,
           [=](const RequestMsg& record, auto& out) {
               EXPECT_TRUE(DecodeLaunchRequest(record, sender, out).empty());
           });
}

TEST(RecordCodec, PayloadsInBothDirections) {
    ExpectLaunch(
        START_APP, "2#a#2#-v#x y#3#-1#1##0#1#/bin/a#2#2#K=V#L=W#b#0#0#",
        {{"a", {"-v", "x y"}, {{-1, {""}}, {0, {"/bin/a"}}, {2, {"K=V", "L=W"}}}}, {"b", {}, {}}},
        "owner");
    ExpectLaunch(RESTART_APP, "2#a#1#-v#b#0#", {{"a", {"-v"}, {}}, {"b", {}, {}}}, "zornmgr");
    const std::vector<TermAppInfo> terms = {{"app_a"}, {"app_b"}};
    Expect(TERM_APP, "2#app_a#app_b#", EncodeTermRequests(terms).value(), terms, DecodeTermRequest);
    const AppExecInfo execution{"b", 1, 2, UINT32_MAX};
    Expect(APP_EXECUTION_REPORT, "1#b#1#2#4294967295#", {EncodeExecutionReport(execution).value()},
           execution, DecodeExecutionReport);
    const StartupCfgInfo cfg{{{"k", "v"}, {"l", ""}}, "/x"};
    for (const RequestType type : {LOAD_STARTUP_CFG, RELOAD_STARTUP_CFG}) {
        Expect(type, "1#/x#2#k#v#l##", {EncodeStartupCfgRequest(type, cfg).value()}, cfg,
               DecodeStartupCfgRequest);
    }
    const Texts names = {"a#\0z"s, ""};
    ExpectRefusingCuts(QUERY_APP_STATE, "\2\0\0\0\4\0\0\0a#\0z\0\0\0\0"s,
                       EncodeQuery(names).value(), names, DecodeQuery);
    const std::vector<AppStateInfo> states = {{"app_a", 11, 0, 3, 0}, {"", UINT32_MAX, 5, 4, 6}};
    const std::string items = EncodeAppState(states[0]) + EncodeAppState(states[1]);
    ExpectRefusingCuts(APP_STATE_REPORT, "2#app_a#11#0#3#0##4294967295#5#4#6#",
                       MakeRecord(APP_STATE_REPORT, PayloadOf(ItemGroup{2, items})), states,
                       DecodeAppStates);
    const std::map<std::string, uint32_t> statuses = {{"B2", 0x01020304}, {"b", 1}};
    ExpectRefusingCuts(APP_DETAIL_STATUS_REPORT, "\2\0\0\0\2\0\0\0B2\4\3\2\1\1\0\0\0b\1\0\0\0"s,
                       EncodeDetailStatus(statuses).value(), statuses, DecodeDetailStatus);
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
    EXPECT_EQ(EncodeDelayRequest(DecodeDelayRequest(delay)), delay);
    EXPECT_THAT(EncodeDelayResult(DELAY_BUSY), ElementsAre(0x0B, 0x03, 0xF1, 0));
    EXPECT_EQ(DecodeDelayResult(EncodeDelayResult(DELAY_BUSY)), DELAY_BUSY);
    EXPECT_FALSE(DecodeDelayResult(delay));
}

TEST(RecordCodec, RecordsThatTheOtherSideDoesNotWriteAreRefused) {
    EXPECT_TRUE(DecodeAppStates(MakeRecord(APP_STATE_REPORT, "0#")));
    for (const char* text :
         {"#", "x#", "-1#a#1#2#3#4#", "1#a#x#2#3#4#", "1#a#1#2#3#-4#", "1#a##2#3#4#",
          "1#a#4294967296#2#3#4#", "4294967295#a#1#2#3#4#", "18446744073709551617#a#1#2#3#4#"}) {
        EXPECT_FALSE(DecodeAppStates(MakeRecord(APP_STATE_REPORT, text))) << text;
    }
    EXPECT_FALSE(DecodeAppStates(MakeRecord(TERM_APP, "1#a#1#2#3#4#")));
    EXPECT_FALSE(DecodeDetailStatus(MakeRecord(QUERY_APP_STATE, "\0\0\0\0"s)));

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
        bool isGoodForZorn;  // the access manager, without dynamic parameters
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
    for (const auto& [what, item, isGood, isGoodForZorn] : cases) {
        const std::vector<StartAppInfo> items = {{"good", {}, {}}, item};
        EXPECT_EQ(EncodeLaunchRequests(START_APP, items, "owner").has_value(), isGood) << what;
        EXPECT_EQ(EncodeLaunchRequests(START_APP, items, "zornmgr").has_value(), isGoodForZorn)
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
