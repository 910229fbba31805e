#include "pmctl/json_output.h"

#include <nlohmann/json.hpp>

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

Json ObjectOf(const Clocks& clock, const Event& event) {
    const int64_t wall = clock.realtimeNs - (clock.monotonicNs - event.atNs);
    return {{"number", event.number}, {"at_ns", event.atNs}, {"realtime_ns", wall},
            {"kind", event.kind},     {"name", event.name},  {"pid", event.pid},
            {"from", event.from},     {"to", event.to},      {"cause", event.cause},
            {"detail", event.detail}};
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

std::string WhyJson(const Service& service, const std::vector<Blocker>& blockers) {
    Json list = Json::array();
    for (const Blocker& blocker : blockers) {
        list.push_back(
            {{"name", blocker.name}, {"reason", blocker.reason}, {"root", blocker.isRoot}});
    }
    return TextOf({{"version", VERSION},
                   {"name", service.name},
                   {"kind", service.kind},
                   {"state", service.state},
                   {"pid", service.pid},
                   {"starts", service.starts},
                   {"last_exit", service.lastExit ? Json(service.lastExit->text) : Json()},
                   {"why", service.why},
                   {"next", service.next},
                   {"held_back_by", list},
                   {"output_tail", service.outputTail}});
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
