// Owners at work: the test plays the owner services, at the other end of their pipes.
#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "agent/owner_channel.h"
#include "tests/e2e/e2e_fixture.h"
#include "tests/e2e/peers.h"

namespace {

using namespace std::chrono_literals;
using OwnerStates = std::map<std::string, uint32_t>;
using ProcMgr::Message::RequestMsg;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

std::string Query(const std::vector<std::string>& names) {
    std::string payload;
    const auto append = [&payload](size_t number) {
        const auto value = static_cast<uint32_t>(number);
        payload.append(reinterpret_cast<const char*>(&value), sizeof(value));
    };
    append(names.size());
    for (const std::string& name : names) {
        append(name.size());
        payload += name;
    }
    return payload;
}

class Owners : public E2e {
protected:
    static std::string Owner(const std::string& name) {
        return Entry(name, "stay", "reporting: true");
    }
    static std::string App(const std::string& name, const std::string& more = "") {
        return "  - {name: " + name + ", bin: /bin/sleep, args: ['1000']" + more + "}\n";
    }
};

TEST_F(Owners, AnApplicationsLife) {
    Boot(Owner("vintor") + Owner("zornmgr") + "applications:\n" + App("a") + App("b"));
    RawOwner vintor("vintor");
    RawOwner zornmgr("zornmgr");
    ASSERT_TRUE(vintor.Attach());
    ASSERT_TRUE(zornmgr.Attach());
    ASSERT_TRUE(WaitForLine(START_UP_END));

    vintor.Send(0, "2#a#0#0#b#0#0#");
    EXPECT_THAT(vintor.Next(2), UnorderedElementsAre("a 0", "b 0"));
    vintor.Send(9, Query({"a", "b", "ghost"}));
    EXPECT_EQ(vintor.Next(), "a=0,b=0,ghost=1");
    vintor.Send(1, "1#a#0#0#");
    EXPECT_EQ(vintor.Next(), "a 1");
    vintor.Send(2, "1#b#");
    EXPECT_EQ(vintor.Next(), "b 3");
    vintor.Send(5, "1#guest#77#88#0#");
    EXPECT_THAT(zornmgr.Next(5), ElementsAre("a 0", "b 0", "a 1", "b 3", "guest 0"));
    EXPECT_EQ(zornmgr.Next(100ms), "") << "each once";
}

TEST_F(Owners, TheClientLibraryDoesTheSame) {
    Boot(Owner("vintor") + "applications:\n" + App("a") + App("b"));
    ProcMgr::Agent::OwnerChannel vintor("vintor");
    std::mutex mutex;
    std::set<std::string> told;
    vintor.OnAppState([&](const auto& infos) {
        const std::lock_guard lock(mutex);
        for (const auto& info : infos) {
            told.insert(info.appName + " " + std::to_string(info.reportType));
        }
    });
    const auto isTold = [&](const std::string& report) {
        return WaitUntil([&] {
            const std::lock_guard lock(mutex);
            return told.contains(report);
        });
    };
    EXPECT_FALSE(vintor.StartApps({{"a", {}, {}}})) << "not attached yet";
    ASSERT_TRUE(vintor.Attach(PATIENCE));
    vintor.ReportRunning();
    ASSERT_TRUE(WaitForLine(START_UP_END));
    ASSERT_TRUE(vintor.StartApps({{"a", {}, {}}, {"b", {}, {}}}));
    EXPECT_TRUE(isTold("a 0") && isTold("b 0"));
    const auto answer = vintor.QueryAppState({"a", "ghost"}, PATIENCE);
    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, (OwnerStates{{"a", 0}, {"ghost", 1}}));
    EXPECT_FALSE(vintor.QueryAppState({std::string(4000, 'x')}, PATIENCE));
    EXPECT_FALSE(vintor.TermApps({{"a#b"}}));
    ASSERT_TRUE(vintor.RestartApps({{"a", {}, {}}}));
    EXPECT_TRUE(isTold("a 1"));
    ASSERT_TRUE(vintor.TermApps({{"a"}, {"b"}}));
    EXPECT_TRUE(isTold("a 3") && isTold("b 3"));
    WriteFile(In("more.yaml"), "applications:\n" + App("late"));
    ASSERT_TRUE(vintor.LoadStartupCfg({{}, In("more.yaml")}));
    ASSERT_TRUE(vintor.StartApps({{"late", {}, {}}}));
    EXPECT_TRUE(isTold("late 0"));
}

TEST_F(Owners, AReloadCountsFromTheNextStart) {
    const std::string base = "  - {name: app, bin: " + std::string(SERVICE) + ", args: [dump, ";
    const auto write = [&](const std::string& rest) {
        WriteFile(In("apps.yaml"), "applications:\n" + base + rest + "}\n");
    };
    write(In("one") + ", stay], env: {A: old, B: \"match(x+)\"}, dynamic: true");
    Boot(Owner("vintor"));
    RawOwner vintor("vintor");
    ASSERT_TRUE(vintor.Attach());
    vintor.Send(6, "1#" + In("apps.yaml") + "#0#");
    vintor.Send(0, "1#app#0#1#2#1#B=xx#");
    EXPECT_EQ(vintor.Next(), "app 0");
    ASSERT_TRUE(WaitUntil([] { return ReadFile(In("one")).find("B=xx") != std::string::npos; }));
    const uint32_t first = vintor.LastPid();

    // The same file by another name; what runs goes on.
    write(In("two") + ", stay], env: {A: new, B: \"match(y+)\"}, dynamic: true");
    vintor.Send(7, "1#" + In("./../e2e/apps.yaml") + "#0#");
    vintor.Send(1, "1#app#0#1#2#1#B=xx#");
    EXPECT_EQ(vintor.Next(), "app 4") << "refused by the new pattern";
    vintor.Send(0, "1#app#0#1#2#1#B=yy#");
    EXPECT_EQ(vintor.Next(), "app 0");
    EXPECT_EQ(vintor.LastPid(), first) << "runs on";
    vintor.Send(1, "1#app#0#1#2#1#B=yy#");
    EXPECT_EQ(vintor.Next(), "app 1");
    ASSERT_TRUE(WaitUntil([] { return ReadFile(In("two")).find("B=yy") != std::string::npos; }));
    EXPECT_NE(ReadFile(In("two")).find("A=new"), std::string::npos);

    // An entry that is dynamic no more, and one that becomes it.
    write(In("three") + ", stay]");
    vintor.Send(7, "1#" + In("apps.yaml") + "#0#");
    vintor.Send(1, "1#app#0#0#");
    EXPECT_EQ(vintor.Next(), "app 1");
    ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists(In("three")); }));
    WriteFile(In("apps.yaml"), "applications:\n  - {name: app, bin: " + std::string(SERVICE) +
                                   ", args: ['match(.*)'], dynamic: true}\n");
    vintor.Send(7, "1#" + In("apps.yaml") + "#0#");
    vintor.Send(1, "1#app#3#dump#" + In("four") + "#stay#0#");
    EXPECT_EQ(vintor.Next(), "app 1");
    EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists(In("four")); }));
    // A priority application of a file that is loaded now is started now.
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
    const auto lines = harness_.Log().Lines();
    EXPECT_LT(std::find_if(lines.begin(), lines.end(),
                           [](const auto& line) {
                               return line.find("success appName=early") != std::string::npos;
                           }),
              std::find_if(lines.begin(), lines.end(), [](const auto& line) {
                  return line.find("success appName=late") != std::string::npos;
              }));
    // Its picture is whole again after it has come back.
    zornmgr.Send(3, "1#0#");
    EXPECT_THAT(zornmgr.Next(3), UnorderedElementsAre("PROCMGR 0", "early 0", "late 0"));
}

TEST_F(Owners, AnAccessManagerThatComesBackIsToldEverything) {
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
        // Mostly types that are served; sizes beyond the record, too.
        record.type = round % 5 == 0 ? static_cast<uint32_t>(random()) : round % 11;
        record.size = round % 3 == 0 ? random() : random() % 4000;
        const bool isText = round % 2 == 0;
        for (auto& byte : record.data) {
            byte = isText ? static_cast<uint8_t>("0123456789##--a"[random() % 15])
                          : static_cast<uint8_t>(random());
        }
        if (record.type == 3) {
            continue;  // a state report is believed
        }
        ASSERT_TRUE(vintor.Send(record));
    }
    std::vector<uint8_t> bytes(5000, 7);
    for (const size_t size : {1U, 15U, 16U, 100U, 3999U, 4001U, 5000U}) {
        RawOwner other("vintor");
        vintor.SendBytes(bytes.data(), size);
    }
    RawOwner again("vintor");
    ASSERT_TRUE(again.Attach()) << "what is no packet ends the connection, not the pipe";
    again.Send(0, "1#a#0#0#");
    std::string report;
    do {
        report = again.Next();
    } while (!report.empty() && report != "a 0");
    EXPECT_EQ(report, "a 0");
}

// Starts, restarts, queries and terminates its applications again and again; counts what it was
// told.
void Work(const std::string& name, size_t apps, std::chrono::steady_clock::time_point end,
          RawOwner& owner, std::map<std::string, int>& counts) {
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
    while (std::chrono::steady_clock::now() < end && !testing::Test::HasFatalFailure()) {
        owner.Send(0, launch);
        expect("0");
        owner.Send(1, launch);
        expect("1");
        owner.Send(9, Query(names));
        const std::string answer = owner.Next();
        ASSERT_EQ(static_cast<size_t>(std::count(answer.begin(), answer.end(), '=')), apps);
        ASSERT_EQ(answer.find("=1"), std::string::npos) << answer;
        owner.Send(2, term);
        expect("3");
    }
}

TEST_F(Owners, FourAtATimeLoseNothing) {
#ifdef __SANITIZE_THREAD__
    constexpr auto DURATION = 30s;
#else
    constexpr auto DURATION = 3s;
#endif
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
    std::map<std::string, std::unique_ptr<RawOwner>> owners;
    std::vector<std::string> all = names;
    all.emplace_back("zornmgr");
    for (const std::string& name : all) {
        owners[name] = std::make_unique<RawOwner>(name);
        ASSERT_TRUE(owners[name]->Attach());
    }
    ASSERT_TRUE(WaitForLine(START_UP_END));

    std::map<std::string, int> told;
    std::atomic<bool> isOver{false};
    std::thread zornmgr([&] {
        for (std::string report; !isOver || !report.empty();) {
            report = owners["zornmgr"]->Next(500ms);
            if (report.find('-') != std::string::npos) {
                ++told[report];
            }
        }
    });
    const auto end = std::chrono::steady_clock::now() + DURATION;
    std::vector<std::map<std::string, int>> counts(names.size());
    std::vector<std::thread> workers;
    for (size_t i = 0; i < names.size(); ++i) {
        workers.emplace_back([&, i] { Work(names[i], APPS, end, *owners[names[i]], counts[i]); });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    isOver = true;
    zornmgr.join();
    std::map<std::string, int> heard;
    for (const auto& count : counts) {
        heard.insert(count.begin(), count.end());
    }
    EXPECT_EQ(told, heard) << "the access manager hears of each change once";
    EXPECT_EQ(heard.size(), names.size() * APPS * 3);
    EXPECT_EQ(harness_.Log().Count("can not find app"), 0U);
}

}  // namespace
