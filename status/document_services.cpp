#include "status/document_services.h"

#include <chrono>

#include "message/enum_names.h"
#include "status/words.h"

namespace ProcMgr::Status {
namespace {

void WriteGroups(JsonWriter& json, const App::AppFacts& facts) {
    json.OpenObject("groups");
    json.Member("cpu", facts.groups->resGroupName_);
    json.Member("cpuset", facts.groups->cpuset_);
    json.Member("blkio", facts.groups->blkioGroupName_);
    json.OpenObject("other");
    for (const auto& [controller, group] : facts.groups->cgroupPath_) {
        json.Member(controller, group);
    }
    json.CloseObject();
    json.CloseObject();
    json.OpenArray("cores");
    for (const uint32_t core : facts.cores) {
        json.Number(core);
    }
    json.CloseArray();
}

void WriteLastExit(JsonWriter& json, const App::LastExit& exit) {
    json.Key("last_exit");
    if (exit.pid == 0) {
        json.Null();
        return;
    }
    json.OpenObject();
    json.Member("pid", exit.pid);
    json.Member("status", exit.status);
    json.Member("text", DescribeExit(exit.status));
    json.Member("at_ns", Nanoseconds(exit.at));
    json.Member("expected", exit.cause.has_value());
    json.CloseObject();
}

void WriteTimes(JsonWriter& json, const App::HistoryValues& history, bool isService) {
    json.OpenObject("times");
    json.Member("waiting_ns", Nanoseconds(history.waiting));
    json.Member("started_ns", Nanoseconds(history.started));
    json.Member("running_ns", Nanoseconds(history.running));
    json.Member("ready_ns", Nanoseconds(history.ready));
    json.Member("ended_ns", Nanoseconds(history.lastExit.at));
    json.Member("changed_ns", Nanoseconds(history.changed));
    json.CloseObject();
    json.Key("boot");
    if (!isService) {
        json.Null();
        return;
    }
    json.OpenObject();
    json.Member("waiting_ns", Nanoseconds(history.waiting));
    json.Member("released_ns", Nanoseconds(history.released));
    json.Member("started_ns", Nanoseconds(history.firstStarted));
    json.Member("running_ns", Nanoseconds(history.firstRunning));
    json.CloseObject();
}

void WriteManifest(JsonWriter& json, const App::AppFacts& facts, bool isReady) {
    json.Member("owner", facts.owner);
    json.Member("policy", facts.policy);
    json.Member("priority", facts.priority);
    json.Member("reporting", facts.isReporting);
    json.Member("ready", isReady);
    json.Member("heartbeat", facts.hasHeartBeat);
    json.Member("exec", facts.execPath);
    json.Member("uid", facts.uid);
    json.Member("gid", facts.gid);
    json.OpenArray("depends");
    for (const std::string& depend : facts.depends) {
        json.Text(depend);
    }
    json.CloseArray();
}

void WriteOutput(JsonWriter& json, const Entry& entry, bool hasTail) {
    json.Member("output", entry.output);
    if (!hasTail) {
        return;
    }
    json.OpenArray("output_tail");
    for (const std::string& line : entry.outputTail) {
        json.Text(line);
    }
    json.CloseArray();
}

struct EntryTexts {
    const char* kind;
    std::string why;
    std::string next;
};

void WriteEntry(JsonWriter& json, const Snapshot& snapshot, const Entry& entry,
                const EntryTexts& texts, bool isService) {
    const App::AppView& app = entry.view.app;
    const App::AppFacts& facts = *app.facts;
    json.OpenObject();
    json.Member("name", facts.name);
    json.Member("kind", texts.kind);
    json.Member("state", GetProcessStateStr(app.state));
    json.Member("pid", app.pid);
    WriteManifest(json, facts, app.isReady);
    json.Member("starts", app.history.starts);
    json.Member("restarts_in_last_minute", app.history.restarts.Count(snapshot.clock.steady));
    WriteLastExit(json, app.history.lastExit);
    json.Member("why", texts.why);
    json.Member("next", texts.next);
    json.Member("settled", IsSettled(texts.next));
    json.Member("start_failed", app.history.HasFailedStart());
    WriteTimes(json, app.history, isService);
    WriteGroups(json, facts);
    json.Member("cpu_ms", entry.usage.cpuMs);
    json.Member("rss_kib", entry.usage.rssKib);
    json.Member("threads", entry.usage.threads);
    WriteOutput(json, entry, !snapshot.onlyName.empty());
    json.CloseObject();
}

bool IsShown(const Snapshot& snapshot, const Entry& entry) {
    return snapshot.onlyName.empty() || entry.view.app.facts->name == snapshot.onlyName;
}

}  // namespace

int64_t Nanoseconds(SteadyTime time) {
    return std::chrono::nanoseconds(time.time_since_epoch()).count();
}

void WriteServices(JsonWriter& json, const Snapshot& snapshot, const Explanation& explanation) {
    json.OpenArray("services");
    for (const Entry& entry : snapshot.services) {
        if (IsShown(snapshot, entry)) {
            WriteEntry(json, snapshot, entry,
                       {"service", explanation.WhyService(entry), explanation.NextOfService(entry)},
                       true);
        }
    }
    json.CloseArray();
}

void WriteApplications(JsonWriter& json, const Snapshot& snapshot, const Explanation& explanation) {
    json.OpenArray("applications");
    for (const Entry& entry : snapshot.applications) {
        if (IsShown(snapshot, entry)) {
            WriteEntry(json, snapshot, entry,
                       {"application", explanation.WhyApplication(entry),
                        explanation.NextOfApplication(entry)},
                       false);
        }
    }
    json.CloseArray();
}

}  // namespace ProcMgr::Status
