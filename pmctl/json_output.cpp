#include "pmctl/json_output.h"

#include <nlohmann/json.hpp>

#include "pmctl/faults.h"
#include "pmctl/health.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr int VERSION = 1;

// Names of processes may be no UTF-8.
std::string TextOf(const Json& document) {
    return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json ProcessesOf(const std::vector<Process>& processes) {
    Json list = Json::array();
    for (const Process& process : processes) {
        list.push_back({{"pid", process.pid},
                        {"name", process.name},
                        {"threads", process.threads},
                        {"children", ProcessesOf(process.children)}});
    }
    return list;
}

int64_t WallNs(const Clocks& clock, int64_t atNs) {
    return clock.realtimeNs - (clock.monotonicNs - atNs);
}

Json ObjectOf(const Clocks& clock, const Event& event) {
    return {
        {"number", event.number}, {"at_ns", event.atNs}, {"realtime_ns", WallNs(clock, event.atNs)},
        {"kind", event.kind},     {"name", event.name},  {"pid", event.pid},
        {"from", event.from},     {"to", event.to},      {"cause", event.cause},
        {"detail", event.detail}};
}

Json ObjectOf(const Clocks& clock, const LastExit& lastExit) {
    return {{"pid", lastExit.pid},
            {"status", lastExit.status},
            {"expected", lastExit.isExpected},
            {"at_ns", lastExit.atNs},
            {"realtime_ns", WallNs(clock, lastExit.atNs)}};
}

Json FaultsJson(const Snapshot& snapshot, const Service& service) {
    Json list = Json::array();
    for (const Fault* fault : FaultsOf(snapshot, service)) {
        list.push_back({{"node", fault->node}, {"event", fault->event}, {"text", fault->text}});
    }
    return list;
}

Json BlockersJson(const std::vector<Blocker>& blockers) {
    Json list = Json::array();
    for (const Blocker& blocker : blockers) {
        list.push_back(
            {{"name", blocker.name}, {"reason", blocker.reason}, {"root", blocker.isRoot}});
    }
    return list;
}

Json ObjectOf(const Snapshot& snapshot, const WhyEntry& entry) {
    const Service& service = entry.service;
    const Clocks& clock = snapshot.clock;
    const int64_t since = SinceNs(snapshot, service);
    return {{"name", service.name},
            {"kind", service.kind},
            {"state", service.state},
            {"health", std::string(HealthName(HealthOf(snapshot, service)))},
            {"since_ns", since == 0 ? Json() : Json(since)},
            {"since_realtime_ns", since == 0 ? Json() : Json(WallNs(clock, since))},
            {"pid", service.pid},
            {"starts", service.starts},
            {"restarts_in_last_minute", service.restartsInLastMinute},
            {"last_exit", service.lastExit ? Json(service.lastExit->text) : Json()},
            {"last_exit_details", service.lastExit ? ObjectOf(clock, *service.lastExit) : Json()},
            {"faults", FaultsJson(snapshot, service)},
            {"why", service.why},
            {"next", service.next},
            {"held_back_by", BlockersJson(entry.blockers)},
            {"output", service.output},
            {"output_tail", service.outputTail}};
}

Json Milliseconds(int64_t ns) {
    return ns < 0 ? Json() : Json(static_cast<double>(ns) / NS_PER_MS);
}

}  // namespace

std::string TreeJson(const Snapshot& snapshot, const std::vector<ServiceProcesses>& services) {
    Json list = Json::array();
    for (const ServiceProcesses& one : services) {
        list.push_back({{"name", one.service->name},
                        {"kind", one.service->kind},
                        {"state", one.service->state},
                        {"pid", one.service->pid},
                        {"threads", one.service->threads},
                        {"children", ProcessesOf(one.below)}});
    }
    return TextOf({{"version", VERSION}, {"pid", snapshot.daemon.pid}, {"services", list}});
}

std::string EventJson(const Clocks& clock, const Event& event) {
    return TextOf(ObjectOf(clock, event));
}

std::string EventsJson(const Clocks& clock, const std::vector<Event>& events) {
    Json list = Json::array();
    for (const Event& event : events) {
        list.push_back(ObjectOf(clock, event));
    }
    return TextOf({{"version", VERSION}, {"events", list}});
}

std::string MissedJson(int64_t count) {
    return TextOf({{"missed", count}});
}

std::string NewDaemonJson(int64_t pid) {
    return TextOf({{"daemon_pid", pid}});
}

std::string WhyJson(const Snapshot& snapshot, const std::vector<WhyEntry>& entries) {
    Json document = Json::object();
    document["version"] = VERSION;
    Json also = Json::array();
    for (const WhyEntry& entry : entries) {
        if (&entry == &entries.front()) {
            document.update(ObjectOf(snapshot, entry));
        } else {
            also.push_back(ObjectOf(snapshot, entry));
        }
    }
    document["also"] = also;
    return TextOf(document);
}

std::string ErrorJson(const std::string& text) {
    return TextOf({{"version", VERSION}, {"error", text}});
}

std::string BootJson(const BootModel& model) {
    Json list = Json::array();
    for (const BootEntry& entry : model.entries) {
        list.push_back({{"name", entry.service->name},
                        {"waiting_ms", Milliseconds(entry.waiting)},
                        {"released_ms", Milliseconds(entry.released)},
                        {"started_ms", Milliseconds(entry.started)},
                        {"ready_ms", Milliseconds(entry.ready)},
                        {"ended_ms", Milliseconds(entry.ended)},
                        {"released_by", entry.releasedBy},
                        {"critical", entry.isCritical},
                        {"reason", entry.reason}});
    }
    return TextOf({{"version", VERSION},
                   {"complete", model.isOver},
                   {"end_ms", Milliseconds(model.end)},
                   {"critical_path", model.critical},
                   {"services", list}});
}

}  // namespace ProcMgr::Pmctl
