// Requests of clients: the line, what is refused, and the records for the daemon.
#include "console/console_request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "console/console_lines.h"
#include "console/console_records.h"
#include "console/request_limit.h"

namespace ProcMgr::Console {
namespace {

using testing::ElementsAre;

// "TYPE PAYLOAD" of each record; the bytes of numbers in a binary payload as they are.
std::vector<std::string> Describe(const std::optional<Message::Records>& records) {
    std::vector<std::string> texts;
    for (const auto& record : records.value_or(Message::Records())) {
        texts.push_back(std::to_string(record.type) + " " +
                        std::string(Message::PayloadOf(record)));
    }
    return texts;
}

// The query for one name of one byte.
std::string QueryFor(const std::string& name) {
    return std::string("9 \1\0\0\0", 6) + static_cast<char>(name.size()) +
           std::string("\0\0\0", 3) + name;
}

TEST(ConsoleRequest, LineAndRecordsOfEachCommand) {
    const std::string stop = R"({"version":1,"command":"stop","names":["a"],"arguments":{},)"
                             R"("wait":false,"timeout_ms":30000})";
    const auto with = [&](const std::string& command) {
        return std::regex_replace(stop, std::regex("stop"), command);
    };
    const struct {
        Request request;
        std::string line;
        std::vector<std::string> records;
    } cases[] = {
        {{Command::START,
          {"a", "b"},
          {"", {"-v", "x y"}, {{0, {"/bin/x"}}, {1, {"7"}}, {2, {"K=V", "L="}}}},
          {},
          true,
          std::chrono::seconds(5)},
         R"({"version":1,"command":"start","names":["a","b"],"arguments":{"args":["-v","x y"],)"
         R"("exec":"/bin/x","vf_id":"7","env":["K=V","L="]},"wait":true,"timeout_ms":5000})",
         {"0 1#a#2#-v#x y#3#0#1#/bin/x#1#1#7#2#2#K=V#L=#",
          "0 1#b#2#-v#x y#3#0#1#/bin/x#1#1#7#2#2#K=V#L=#",
          std::string("9 \2\0\0\0\1\0\0\0a\1\0\0\0b", 16)}},
        {{Command::RESTART, {"a"}}, with("restart"), {"1 1#a#0#0#", QueryFor("a")}},
        {{Command::STOP, {"a"}}, stop, {"2 1#a#", QueryFor("a")}},
        {{Command::QUERY, {"a"}}, with("query"), {QueryFor("a")}},
        {{Command::RELOAD, {}, {}, {{{"slot", "1"}}, "/x.yaml"}},
         R"({"version":1,"command":"reload","names":[],"arguments":{"path":"/x.yaml",)"
         R"("match":{"slot":"1"}},"wait":false,"timeout_ms":30000})",
         {"7 1#/x.yaml#1#slot#1#", QueryFor("pm-console")}},
    };
    for (const auto& [request, line, records] : cases) {
        EXPECT_EQ(FormatRequest(request), line + "\n");
        const ParsedRequest parsed = ParseRequest(line);
        EXPECT_EQ(parsed.error, "");
        EXPECT_EQ(parsed.request, request) << line;
        EXPECT_EQ(Describe(MakeRecords(request)), records) << line;
    }
    EXPECT_THAT(
        ParseRequest(R"({"version":1,"command":"stop","names":["a","b","a"]})").request->names,
        ElementsAre("a", "b"));
}

TEST(ConsoleRequest, Refusals) {
    const auto stop = [](const std::string& rest) {
        return R"({"version":1,"command":"stop")" + rest + "}";
    };
    const auto start = [](const std::string& arguments) {
        return R"({"version":1,"command":"start","names":["a"],"arguments":)" + arguments + "}";
    };
    const auto load = [](const std::string& arguments) {
        return R"({"version":1,"command":"load","arguments":)" + arguments + "}";
    };
    std::string many;
    for (size_t i = 0; i <= NAMES_MAX; ++i) {
        many += (i == 0 ? "\"a" : ",\"a") + std::to_string(i) + "\"";
    }
    const std::pair<std::string, std::string> cases[] = {
        {"", "the request is not a JSON object"},
        {stop(""), "no names"},
        {"{\"version\":1,\"command\":\"stop\",\"names\":[\"\xff\"]}",
         "the request is not a JSON object"},
        {std::string(30000, '['), "the request is nested too deeply"},
        {R"({"x":[[{"y":1}]]})", "the request is nested too deeply"},
        {R"({"command":"stop"})", "this pm-console speaks version 1"},
        {R"({"version":2,"new":1})", "this pm-console speaks version 1"},
        {R"({"version":1,"command":"halt","names":["a"]})", "unknown command"},
        {stop(R"(,"names":["a"],"nmaes":1)"), "unknown key \"nmaes\""},
        {stop(R"(,"names":"a")"), "\"names\" is not a list"},
        {stop(R"(,"names":[1])"), "\"names\" is not made of texts"},
        {stop(R"(,"names":["a#b"])"), "\"a#b\" cannot be the name of an application"},
        {stop(R"(,"names":["a b"])"), "\"a b\" cannot be the name of an application"},
        {stop(R"(,"names":["a\nb"])"), "\"names\" holds a control character"},
        {stop(R"(,"names":["a\u0000"])"), "\"names\" holds a control character"},
        {start(R"({"env":["K=\u001b[2J"]})"), "\"env\" holds a control character"},
        {load(R"({"path":"/x\u007f"})"), "\"path\" holds a control character"},
        {load(R"({"path":"/x","match":{"a\n":"b"}})"), "\"match\" holds a control character"},
        {stop(",\"names\":[" + many + "]"), "more than 64 names"},
        {stop(R"(,"names":["a"],"wait":1)"), "\"wait\" is neither true nor false"},
        {stop(R"(,"names":["a"],"timeout_ms":0)"),
         "\"timeout_ms\" is not a number from 1 to 3600000"},
        {stop(R"(,"names":["a"],"timeout_ms":1e99)"),
         "\"timeout_ms\" is not a number from 1 to 3600000"},
        {stop(R"(,"names":["a"],"arguments":[])"), "\"arguments\" is not an object"},
        {stop(R"(,"names":["a"],"arguments":{"args":[]})"), "unknown key \"args\""},
        {start(R"({"env":["=V"]})"), "\"=V\" is not KEY=VALUE"},
        {start(R"({"args":{}})"), "\"args\" is not a list"},
        {start(R"({"exec":"a#b"})"), "\"exec\" holds '#', which separates the fields of a record"},
        {load(R"({"path":"x.yaml"})"), "\"path\" is not an absolute path"},
        {load(R"({"path":"/x","match":[]})"), "\"match\" is not an object"},
        {load(R"({"path":"/x","match":{"a":1}})"), "\"match\" is not made of texts"},
        {R"({"version":1,"command":"load","names":["a"]})", "names beside a file"},
    };
    for (const auto& [line, error] : cases) {
        const ParsedRequest parsed = ParseRequest(line);
        EXPECT_FALSE(parsed.request) << line;
        EXPECT_EQ(parsed.error, error) << line;
    }
    // Texts that a bracket or a quote stands in do not count as nested.
    EXPECT_TRUE(ParseRequest(start(R"({"args":["[[[[\"[[[["]})")).request);
    // What the records cannot carry.
    EXPECT_FALSE(MakeRecords({Command::START, {"a"}, {"", {"a#b"}, {}}}));
    EXPECT_FALSE(MakeRecords({Command::START, {"a"}, {"", {std::string(4000, 'x')}, {}}}));
    EXPECT_FALSE(MakeRecords({Command::STOP, std::vector<std::string>(60, std::string(127, 'x'))}));
}

TEST(ConsoleRequest, EachUserMaySendSoManyInASecond) {
    using std::chrono::milliseconds;
    RequestLimit limit;
    RequestLimit::Time now{};
    const auto take = [&](uid_t user) {
        int taken = 0;
        for (; limit.Take(user, now); ++taken) {
        }
        return taken;
    };
    EXPECT_EQ(take(1), 50);
    now += milliseconds(100);
    EXPECT_EQ(take(1), 2);
    EXPECT_EQ(take(2), 50);
    now += std::chrono::hours(1);
    EXPECT_EQ(take(1), 50);
    // More users at a time than are remembered.
    uid_t user = 1000;
    while (limit.Take(user, now)) {
        ++user;
    }
    EXPECT_EQ(user, 1000 + RequestLimit::USERS_MAX - 1) << "besides user 1";
    now += milliseconds(50);
    EXPECT_TRUE(limit.Take(user, now)) << "the others are as good as new";
}

}  // namespace
}  // namespace ProcMgr::Console
