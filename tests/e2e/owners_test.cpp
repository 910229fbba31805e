// Owner services, which the test plays at the other end of their pipes: starting, restarting,
// asking for and ending applications, reloading configurations.
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "agent/owner_channel.h"
#include "message/request_codec.h"
#include "tests/e2e/e2e_fixture.h"
#include "tests/e2e/peers.h"

namespace {

using namespace std::chrono_literals;
using OwnerStates = std::map<std::string, uint32_t>;
using ProcMgr::Message::RequestMsg;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

RequestMsg Query(const std::vector<std::string>& names) {
    return ProcMgr::Message::EncodeQuery(names).value();
}

using Owners = E2e;

TEST_F(Owners, AnApplicationsLife) {
    Boot(Owner("vintor") + Owner("zornmgr") + "applications:\n" + App("a") + App("b"));
    std::mutex mutex;
    std::set<std::string> reports;
    ProcMgr::Agent::OwnerChannel vintor("vintor");  // destroyed before what its callback uses
    RawOwner zornmgr("zornmgr");
    vintor.OnAppState([&](const auto& infos) {
        const std::lock_guard lock(mutex);
        for (const auto& info : infos) {
            reports.insert(info.appName + " " + std::to_string(info.reportType));
        }
    });
    const auto areReported = [&](const std::set<std::string>& expected) {
        return WaitUntil([&] {
            const std::lock_guard lock(mutex);
            return std::includes(reports.begin(), reports.end(), expected.begin(), expected.end());
        });
    };
    EXPECT_FALSE(vintor.StartApps({{"a", {}, {}}})) << "not attached yet";
    ASSERT_TRUE(vintor.Attach(PATIENCE) && vintor.ReportRunning() && zornmgr.Attach());
    ASSERT_TRUE(WaitForLine(START_UP_END));
    ASSERT_TRUE(vintor.StartApps({{"a", {}, {}}, {"b", {}, {}}}));
    EXPECT_TRUE(areReported({"a 0", "b 0"}));
    EXPECT_EQ(vintor.QueryAppState({"a", "b", "ghost"}, PATIENCE),
              (OwnerStates{{"a", 0}, {"b", 0}, {"ghost", 1}}));
    ASSERT_TRUE(vintor.RestartApps({{"a", {}, {}}}));
    EXPECT_TRUE(areReported({"a 1"}));
    ASSERT_TRUE(vintor.TermApps({{"b"}}));
    EXPECT_TRUE(areReported({"b 3"}));
    ASSERT_TRUE(vintor.ReportExecution({"guest", 77, 88, 0}));
    WriteFile(In("more.yaml"), "applications:\n" + App("late"));
    ASSERT_TRUE(vintor.LoadStartupCfg({{}, In("more.yaml")}));
    ASSERT_TRUE(vintor.StartApps({{"late", {}, {}}}));
    EXPECT_TRUE(areReported({"late 0"}));
    EXPECT_THAT(zornmgr.Next(6), ElementsAre("a 0", "b 0", "a 1", "b 3", "guest 0", "late 0"));
    // The next report is that of the next change: each came once.
    ASSERT_TRUE(vintor.TermApps({{"a"}}));
    EXPECT_EQ(zornmgr.Next(), "a 3");
}

TEST_F(Owners, AReloadCountsFromTheNextStart) {
    const auto write = [](const std::string& rest) {
        WriteFile(In("apps.yaml"), "applications:\n  - {name: app, bin: " + std::string(SERVICE) +
                                       ", args: [" + rest + "}\n");
    };
    const auto hasLine = [](const std::string& name, const std::string& line) {
        return WaitUntil([&] { return ReadFile(In(name)).find(line) != std::string::npos; });
    };
    const std::string reload = "1#" + In("apps.yaml") + "#0#";
    write("dump, " + In("one") + ", stay], env: {A: old, B: \"match(x+)\"}, dynamic: true");
    ASSERT_EQ(mkfifo(In("fifo").c_str(), 0644), 0);
    Boot(Owner("vintor"));
    RawOwner vintor("vintor");
    ASSERT_TRUE(vintor.Attach());
    vintor.Send(6, "1#" + In("fifo") + "#0#");
    vintor.Send(6, reload);
    vintor.Send(0, "1#app#0#1#2#1#B=xx#");
    EXPECT_EQ(vintor.Next(), "app 0") << "the FIFO holds nothing up";
    EXPECT_TRUE(WaitForLine("LoadStartCfgInfo failed, path=" + In("fifo")));
    ASSERT_TRUE(hasLine("one", "B=xx"));
    const uint32_t first = vintor.LastPid();

    // The same file by another path; the running process goes on.
    write("dump, " + In("two") + ", stay], env: {A: new, B: \"match(y+)\"}, dynamic: true");
    vintor.Send(7, "1#" + In("./../e2e/apps.yaml") + "#0#");
    vintor.Send(1, "1#app#0#1#2#1#B=xx#");
    EXPECT_EQ(vintor.Next(), "app 4") << "refused by the new pattern";
    vintor.Send(0, "1#app#0#1#2#1#B=yy#");
    EXPECT_EQ(vintor.Next(), "app 0");
    EXPECT_EQ(vintor.LastPid(), first) << "runs on";
    vintor.Send(1, "1#app#0#1#2#1#B=yy#");
    EXPECT_EQ(vintor.Next(), "app 1");
    ASSERT_TRUE(hasLine("two", "B=yy"));
    EXPECT_TRUE(hasLine("two", "A=new"));

    // An entry that is no longer dynamic, and one that becomes dynamic.
    write("touch, " + In("three") + ", stay]");
    vintor.Send(7, reload);
    vintor.Send(1, "1#app#0#0#");
    EXPECT_EQ(vintor.Next(), "app 1");
    ASSERT_TRUE(WaitForFile("three"));
    write("'match(.*)'], dynamic: true");
    vintor.Send(7, reload);
    vintor.Send(1, "1#app#3#touch#" + In("four") + "#stay#0#");
    EXPECT_EQ(vintor.Next(), "app 1");
    EXPECT_TRUE(WaitForFile("four"));
    // A priority application is started when its file is loaded.
    WriteFile(In("more.yaml"), "applications:\n" + App("prio", ", startup_priority: 1"));
    vintor.Send(6, "1#" + In("more.yaml") + "#0#");
    EXPECT_TRUE(WaitForLine("PROCMGR : STARTING to RUNNING appName=prio"));
}

TEST_F(Owners, PriorityApplicationsAreHeldBackUntilTheAccessManagerIsReady) {
    Boot(Owner("zornmgr") + "applications:\n" + App("late", ", startup_priority: 2") +
         App("early", ", startup_priority: 1"));
    ASSERT_TRUE(WaitForLine("PROCMGR : STARTING to RUNNING appName=late"));
    RawOwner zornmgr("zornmgr");
    ASSERT_TRUE(zornmgr.Attach());
    EXPECT_THAT(zornmgr.Next(2), UnorderedElementsAre("early 0", "late 0"));
    std::string starts;
    for (const std::string& line : Log().Lines()) {
        for (const std::string name : {"early", "late"}) {
            starts += line.find("success appName=" + name) == std::string::npos ? "" : name + " ";
        }
    }
    EXPECT_EQ(starts, "early late ");
    // After it has reported RUNNING again it gets all states again.
    zornmgr.Send(3, "1#0#");
    EXPECT_THAT(zornmgr.Next(3), UnorderedElementsAre("PROCMGR 0", "early 0", "late 0"));
}

TEST_F(Owners, AnAccessManagerThatComesBackGetsAllStates) {
    Boot(
        "  - {name: zornmgr, bin: /bin/sleep, args: ['0.3'], reporting: true, "
        "restart: on-forever}\n" +
        Entry("svc", "stay", "depends: [zornmgr]"));
    {
        RawOwner first("zornmgr");
        ASSERT_TRUE(first.Attach());
        EXPECT_EQ(first.Next(), "svc 0");
        ASSERT_TRUE(WaitForLine("PROCMGR : Restarting process zornmgr"));
    }
    RawOwner second("zornmgr");
    ASSERT_TRUE(second.Attach());
    EXPECT_THAT(second.Next(2), UnorderedElementsAre("PROCMGR 0", "svc 0"));
}

TEST_F(Owners, NoRubbishStopsTheDaemon) {
    Boot(Owner("vintor") + "applications:\n" + App("a"));
    RawOwner vintor("vintor");
    ASSERT_TRUE(vintor.Attach());
    ASSERT_TRUE(WaitForLine(START_UP_END));
    std::mt19937 random(4711);
    for (uint32_t round = 0; round < 2000; ++round) {
        RequestMsg record;
        // Mostly valid types; sizes larger than the record, too.
        record.type = round % 5 == 0 ? static_cast<uint32_t>(random()) : round % 11;
        record.size = round % 3 == 0 ? random() : random() % 4000;
        const bool isText = round % 2 == 0;
        for (auto& byte : record.data) {
            byte = isText ? static_cast<uint8_t>("0123456789##--a"[random() % 15])
                          : static_cast<uint8_t>(random());
        }
        if (record.type == 3) {
            continue;  // a valid state report would be stored
        }
        ASSERT_TRUE(vintor.Send(record));
    }
    for (const size_t size : {1U, 15U, 16U, 100U, 3999U, 4001U, 5000U}) {
        vintor.SendBytes(std::string(size, '\x7'));
    }
    RawOwner again("vintor");
    ASSERT_TRUE(again.Attach()) << "a malformed packet ends the connection, not the pipe";
    again.Send(0, "1#a#0#0#");
    EXPECT_TRUE(again.WaitFor("a 0"));
}

// Starts, restarts, queries and terminates the applications of an owner `rounds` times; counts the
// reports.
void Work(const std::string& name, size_t apps, int rounds, RawOwner& owner,
          std::map<std::string, int>& counts) {
    std::vector<std::string> names;
    std::string launch = std::to_string(apps) + "#";
    std::string term = launch;
    for (size_t i = 0; i < apps; ++i) {
        names.push_back(name + "-" + std::to_string(i));
        launch += names.back() + "#0#0#";
        term += names.back() + "#";
    }
    const auto expect = [&](const std::string& type) {
        for (size_t i = 0; i < apps; ++i) {
            const std::string report = owner.Next();
            ASSERT_FALSE(report.empty()) << name << " waits for " << type;
            ASSERT_EQ(report.substr(report.find(' ')), " " + type) << report;
            ++counts[report];
        }
    };
    for (int round = 0; round < rounds && !testing::Test::HasFatalFailure(); ++round) {
        owner.Send(0, launch);
        expect("0");
        owner.Send(1, launch);
        expect("1");
        owner.Send(Query(names));
        const std::string answer = owner.Next();
        ASSERT_EQ(static_cast<size_t>(std::count(answer.begin(), answer.end(), '=')), apps);
        ASSERT_EQ(answer.find("=1"), std::string::npos) << answer;
        owner.Send(2, term);
        expect("3");
    }
}

TEST_F(Owners, FourAtATimeLoseNothing) {
    constexpr int ROUNDS = 8;
    constexpr size_t APPS = 50;
    const std::vector<std::string> names = {"own1", "own2", "own3", "own4"};
    std::string services = Owner("zornmgr");
    std::string applications = "applications:\n";
    for (const std::string& name : names) {
        services += Owner(name);
        for (size_t i = 0; i < APPS; ++i) {
            applications += App(name + "-" + std::to_string(i));
        }
    }
    Boot(services + applications);
    RawOwner zornmgr("zornmgr");
    std::vector<RawOwner> owners(names.begin(), names.end());
    for (RawOwner& owner : owners) {
        ASSERT_TRUE(owner.Attach());
    }
    ASSERT_TRUE(zornmgr.Attach());
    ASSERT_TRUE(WaitForLine(START_UP_END));

    std::vector<std::map<std::string, int>> counts(names.size());
    std::vector<std::thread> workers;
    for (size_t i = 0; i < names.size(); ++i) {
        workers.emplace_back([&, i] { Work(names[i], APPS, ROUNDS, owners[i], counts[i]); });
    }
    // The access manager reads at the same time, as many reports as there are changes.
    std::map<std::string, int> changes;
    for (size_t left = names.size() * APPS * 3 * ROUNDS; left > 0 && !HasFailure();) {
        const std::string report = zornmgr.Next();
        EXPECT_FALSE(report.empty()) << left << " reports are missing";
        if (report.find('-') != std::string::npos) {
            ++changes[report];
            --left;
        }
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    std::map<std::string, int> reported;
    for (const auto& count : counts) {
        reported.insert(count.begin(), count.end());
    }
    EXPECT_EQ(changes, reported) << "each change is reported to the access manager once";
    EXPECT_EQ(reported.size(), names.size() * APPS * 3);
    EXPECT_EQ(Log().Count("can not find app"), 0U);
}

}  // namespace
