#include "pmctl/offline_json.h"

#include <nlohmann/json.hpp>

namespace ProcMgr::Pmctl {
namespace {

using Json = nlohmann::ordered_json;

// Names and paths may be no UTF-8.
std::string Dumped(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json ToJson(const PlannedService& service) {
    return {{"name", service.name},
            {"file", service.file},
            {"batch", service.batch},
            {"depends", service.depends},
            {"reporting", service.isReporting},
            {"outcome", FateName(service.fate)},
            {"why", service.why}};
}

Json ToJson(const Forecast& forecast) {
    Json steps = Json::array();
    for (const ForecastStep& step : forecast.steps) {
        steps.push_back({{"name", step.name},
                         {"released_ms", step.released},
                         {"started_ms", step.started},
                         {"running_ms", step.running},
                         {"waited_for", step.isWaitedFor},
                         {"guess", step.isGuess}});
    }
    Json critical = Json::array();
    for (const CriticalPart& part : CriticalPath(forecast)) {
        critical.push_back({{"what", part.what}, {"ms", part.milliseconds}});
    }
    return {{"end_ms", forecast.end}, {"services", steps}, {"critical_path", critical}};
}

Json ToJson(const BootPlan& plan) {
    Json apps = Json::array();
    for (const PriorityApp& app : plan.priorityApps) {
        apps.push_back({{"name", app.name}, {"priority", app.priority}, {"why", app.why}});
    }
    Json services = Json::array();
    for (const PlannedService& service : plan.services) {
        services.push_back(ToJson(service));
    }
    return {{"file", plan.file},
            {"notes", plan.notes},
            {"priority_applications", apps},
            {"services", services},
            {"cycles", plan.cycles}};
}

Json ToJson(const Finding& finding) {
    return {{"severity", SeverityName(finding.severity)},
            {"file", finding.file},
            {"line", finding.line},
            {"key", finding.key},
            {"what", finding.what},
            {"hint", finding.hint}};
}

}  // namespace

std::string FindingsJson(const Findings& findings) {
    Json list = Json::array();
    for (const Finding& finding : findings.Get()) {
        list.push_back(ToJson(finding));
    }
    return Dumped(list);
}

std::string PlanJson(const BootPlan& plan) {
    return Dumped(ToJson(plan));
}

std::string PlanJson(const BootPlan& plan, const std::optional<Forecast>& forecast) {
    Json json = ToJson(plan);
    json["forecast"] = forecast ? ToJson(*forecast) : Json(nullptr);
    return Dumped(json);
}

}  // namespace ProcMgr::Pmctl
