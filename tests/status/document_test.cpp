// The documents: whole texts for snapshots that are made by hand.
#include "status/document.h"

#include <gtest/gtest.h>

#include "status/json_writer.h"
#include "tests/status/snapshot_support.h"

namespace ProcMgr::Status {
namespace {

constexpr int32_t KILLED_WITH_CORE = 0x80 | 11;

Entry Collector() {
    ManifestData data;
    data.name = "collector";
    data.bin = "/usr/bin/collector";
    data.uid = 1000;
    data.gid = 1001;
    data.depends = {"bus", "store"};
    data.reporting = true;
    data.restart = "on-failure";
    data.coreAffinity = {1, 3};
    data.resourceGroup = "OTHER";
    data.cpuset = "CtrlCPU";
    data.blkioGroup = "slow";
    data.cgroups = {{"memory", "/x"}};
    Entry entry = Service(data, RUNNING, 4711);
    entry.view.app.isReady = true;
    App::HistoryValues& history = entry.view.app.history;
    history.starts = 2;
    history.restarts.Add(At(30'000'000'000));
    history.lastExit = {4710, KILLED_WITH_CORE, At(29), std::nullopt};
    history.waiting = At(1);
    history.released = At(2);
    history.firstStarted = At(3);
    history.firstRunning = At(4);
    history.started = At(30);
    history.running = At(31);
    history.ready = At(32);
    entry.usage = {120, 2048, 3};
    entry.output = "file:/var/log/c.log";
    entry.outputTail = {"one", "t\"wo\\\t"};
    return entry;
}

Entry Worker() {
    ManifestData data;
    data.name = "w\xffr\xc3\xb6\xed\xa0\x80";
    data.bin = "/bin/w";
    App::AppSpec spec(ApplicationManifest(std::make_shared<const ManifestData>(data)), data.name);
    spec.heartBeatSwitch_ = true;
    Entry entry;
    entry.view.app.facts = std::make_shared<const App::AppFacts>(spec, "collector");
    entry.view.app.state = TERMINATING;
    entry.view.app.pid = 5000;
    entry.view.app.isKilled = true;
    entry.view.app.termTimeout = 1500;
    entry.view.app.history.starts = 1;
    entry.view.app.history.changed = At(39'700'000'000);
    entry.view.app.history.changeReason = App::ChangeReason::TERMINATION;
    return entry;
}

Snapshot Example() {
    Snapshot snapshot;
    snapshot.clock = {At(40'000'000'000), 1'700'000'000'000'000'001};
    snapshot.daemon = {"1.0.0", "/etc/base.yaml", false};
    snapshot.configError = "a \"b\"";
    snapshot.pid = 77;
    snapshot.phases = {{Phase::MAIN, At(10)}, {Phase::RUNNING, At(20)}};
    snapshot.usage = {250, 9000, 8};
    snapshot.logLinesDropped = 6;
    snapshot.counters = {5, 1, 4, 2, 17, 9, {3, 11, 13}};
    snapshot.services = {Collector()};
    snapshot.applications = {Worker()};
    snapshot.pipes = {{"collector", 4711, true, 1, 2, 3}};
    snapshot.faults = {{"pm_base_service", "collector", 39}, {"pm_general_app", "x", 208}};
    App::ChangeLog log;
    log.Open();
    log.Add(App::AppKind::BASE, "collector", 4710, {RUNNING, TERMINATED, App::ChangeReason::EXITED},
            KILLED_WITH_CORE);
    log.Add(App::AppKind::GENERAL, "x", 5, {STARTING, RUNNING, App::ChangeReason::FOUND_RUNNING},
            0);
    snapshot.events = log.GetSince(0);
    snapshot.events[0].at = At(29);
    snapshot.events[1].at = At(30);
    return snapshot;
}

const std::string COLLECTOR =
    R"({"name":"collector","kind":"service","state":"RUNNING","pid":4711,"owner":"",)"
    R"("policy":"on-failure","priority":-1,"reporting":true,"ready":true,"heartbeat":false,)"
    R"("exec":"/usr/bin/collector","uid":1000,"gid":1001,"depends":["bus","store"],"starts":2,)"
    R"("restarts_in_last_minute":1,"last_exit":{"pid":4710,"status":139,)"
    R"("text":"killed by signal 11 (SIGSEGV), core dumped","at_ns":29,"expected":false},)"
    R"("why":"","next":"nothing, it runs","settled":true,"start_failed":false,)"
    R"("times":{"waiting_ns":1,"started_ns":30,"running_ns":31,)"
    R"("ready_ns":32,"ended_ns":29,"changed_ns":0},"boot":{"waiting_ns":1,"released_ns":2,"started_ns":3,)"
    R"("running_ns":4},"groups":{"cpu":"OTHER","cpuset":"CtrlCPU","blkio":"slow",)"
    R"("other":{"memory":"/x"}},"cores":[1,3],"cpu_ms":120,"rss_kib":2048,"threads":3,)"
    R"("output":"file:/var/log/c.log")";
const std::string TAIL = R"(,"output_tail":["one","t\"wo\\\u0009"])";
const std::string WORKER =
    R"({"name":"w\u00ffrö\u00ed\u00a0\u0080","kind":"application","state":"TERMINATING",)"
    R"("pid":5000,"owner":"collector","policy":"no","priority":-1,"reporting":false,)"
    R"("ready":false,"heartbeat":true,"exec":"/bin/w","uid":0,"gid":0,"depends":[],"starts":1,)"
    R"("restarts_in_last_minute":0,"last_exit":null,"why":"is being stopped on request",)"
    R"("next":"SIGKILL in 1200 ms unless it ends","settled":false,"start_failed":false,)"
    R"("times":{"waiting_ns":0,"started_ns":0,)"
    R"("running_ns":0,"ready_ns":0,"ended_ns":0,"changed_ns":39700000000},"boot":null,"groups":{"cpu":"","cpuset":"",)"
    R"("blkio":"","other":{}},"cores":[],"cpu_ms":0,"rss_kib":0,"threads":0,)"
    R"("output":"inherit"})";
const std::string HEAD =
    R"({"version":1,"clock":{"monotonic_ns":40000000000,"realtime_ns":1700000000000000001},)";
const std::string BEFORE_SERVICES =
    HEAD +
    R"("daemon":{"version":"1.0.0","pid":77,"config":"/etc/base.yaml","config_error":"a \"b\"",)"
    R"("quick_start":false,)"
    R"("phase":"running","phases":[{"name":"main","at_ns":10},{"name":"running","at_ns":20}],)"
    R"("uptime_ms":39999,"cpu_ms":250,"rss_kib":9000,"threads":8,"log_lines_dropped":6},)"
    R"("counters":{"starts":5,"start_failures":1,"exits":4,"unknown_exits":2,)"
    R"("state_changes":17,"status_requests":3,"status_clients_refused":11,)"
    R"("status_clients_dropped":13,"output_lines_dropped":9},"services":[)";
const std::string EVENTS =
    R"("events":[{"number":1,"at_ns":29,"kind":"service","name":"collector","pid":4710,)"
    R"("from":"RUNNING","to":"TERMINATED","cause":"exited",)"
    R"("detail":"killed by signal 11 (SIGSEGV), core dumped"},{"number":2,"at_ns":30,)"
    R"("kind":"application","name":"x","pid":5,"from":"STARTING","to":"RUNNING",)"
    R"("cause":"found running","detail":""}]})"
    "\n";
const std::string AFTER_APPLICATIONS =
    R"(],"pipes":[{"owner":"collector","pid":4711,"open":true,"queued_reports":1,)"
    R"("queued_states":2,"missed":3}],"faults":[{"node":"pm_base_service","name":"collector",)"
    R"("event":39,"text":"heartbeat lost"},{"node":"pm_general_app","name":"x","event":208,)"
    R"("text":"start failed"}],)" +
    EVENTS;
const std::string BETWEEN = R"(],"applications":[)";

TEST(Document, HasEveryField) {
    Snapshot snapshot = Example();
    EXPECT_EQ(WriteDocument(snapshot),
              BEFORE_SERVICES + COLLECTOR + "}" + BETWEEN + WORKER + AFTER_APPLICATIONS);
    snapshot.onlyName = "collector";
    EXPECT_EQ(WriteDocument(snapshot),
              BEFORE_SERVICES + COLLECTOR + TAIL + "}" + BETWEEN + AFTER_APPLICATIONS);
    snapshot.onlyName = "nobody";
    EXPECT_EQ(WriteDocument(snapshot), BEFORE_SERVICES + BETWEEN + AFTER_APPLICATIONS);
    EXPECT_EQ(WriteEvents(snapshot.clock, snapshot.pid, snapshot.events),
              HEAD + R"("daemon":{"pid":77},)" + EVENTS);
    EXPECT_EQ(WriteError(), "{\"version\":1,\"error\":\"unknown request\"}\n");
}

// Bytes that look like the begin of a character of UTF-8 but are none.
TEST(Document, TextsThatAreNoUtf8) {
    const struct {
        std::string text;
        std::string json;
    } cases[] = {
        {std::string("\0\x1f\x7f\n", 4), "\\u0000\\u001f\x7f\\n"},
        {"\xe2\x82\xac\xf0\x9f\x98\x80", "\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"\xe2\x82", "\\u00e2\\u0082"},                                   // ends too early
        {"\xc0\xaf\xe0\x80\xaf", "\\u00c0\\u00af\\u00e0\\u0080\\u00af"},  // longer than needed
        {"\xf4\x90\x80\x80", "\\u00f4\\u0090\\u0080\\u0080"},  // above the last character
        {"\x80"
         "a",
         "\\u0080a"},
    };
    for (const auto& [text, json] : cases) {
        JsonWriter writer;
        writer.Text(text);
        EXPECT_EQ(writer.Take(), "\"" + json + "\"");
    }
}

TEST(ProcessUsage, IsReadBehindAnyName) {
    const std::string rest = " S 1 2 3 4 5 6 7 8 9 10 250 50 13 14 15 16 3 18 19 20 1000 22 23";
    const auto usage = ParseProcessUsage("12 (a) b) R (c)" + rest, 100, 4096);
    ASSERT_TRUE(usage);
    EXPECT_EQ(usage->cpuMs, 3000U);
    EXPECT_EQ(usage->threads, 3U);
    EXPECT_EQ(usage->rssKib, 4000U);
    for (const std::string text : {"", "12 (a", "12 (a)", "12 (a) S 1 2", "no stat"}) {
        EXPECT_FALSE(ParseProcessUsage(text, 100, 4096)) << text;
    }
    EXPECT_GT(ReadProcessUsage(getpid()).value_or(ProcessUsage{}).rssKib, 0U);
    EXPECT_FALSE(ReadProcessUsage(-1));
}

}  // namespace
}  // namespace ProcMgr::Status
