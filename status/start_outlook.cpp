#include "status/start_outlook.h"

namespace ProcMgr::Status {
namespace {

using App::AppView;

// Whether supervision starts the service again, or has not decided about it yet.
bool MayRunAgain(const AppView& app) {
    switch (app.state) {
        case INITSTATE:
            return app.history.refusal == App::StartRefusal::NONE;
        case TERMINATED:
            return app.isInList && (app.isLaunching || app.mayRestart);
        default:
            return true;
    }
}

// Of a service that does not wait for its turn.
bool MayRun(const ServiceView& service) {
    return service.verdict == StartVerdict::RELEASED &&
           (service.app.pid > 0 || MayRunAgain(service.app));
}

}  // namespace

// The services are taken in an order in which start-up may start them; the others wait for a
// service that is not taken.
StartOutlook::StartOutlook(const std::vector<Entry>& services) {
    services_.reserve(services.size());
    for (const Entry& entry : services) {
        services_.emplace(entry.view.app.facts->name, &entry.view);
    }
    Waiting waiting;
    std::vector<const ServiceView*> startable = CollectWaiting(services, waiting);
    while (!startable.empty()) {
        const ServiceView* next = startable.back();
        startable.pop_back();
        for (const ServiceView* released : waiting[next->app.facts->name]) {
            if (--unmet_[released] == 0) {
                startable.push_back(released);
            }
        }
    }
}

std::vector<const ServiceView*> StartOutlook::CollectWaiting(const std::vector<Entry>& services,
                                                             Waiting& waiting) {
    std::vector<const ServiceView*> startable;
    for (const Entry& entry : services) {
        if (entry.view.verdict != StartVerdict::WAITING) {
            continue;
        }
        size_t& unmet = unmet_[&entry.view];
        for (const std::string& name : entry.view.app.facts->depends) {
            const ServiceView* depend = Find(name);
            if (depend == nullptr || !MayRun(*depend)) {
                waiting[name].push_back(&entry.view);
                ++unmet;
            }
        }
        if (unmet == 0) {
            startable.push_back(&entry.view);
        }
    }
    return startable;
}

const ServiceView* StartOutlook::Find(std::string_view name) const {
    const auto found = services_.find(name);
    return found == services_.end() ? nullptr : found->second;
}

bool StartOutlook::WillRun(std::string_view name) const {
    const ServiceView* service = Find(name);
    if (service == nullptr) {
        return false;
    }
    const auto waiting = unmet_.find(service);
    return waiting == unmet_.end() ? MayRun(*service) : waiting->second == 0;
}

}  // namespace ProcMgr::Status
