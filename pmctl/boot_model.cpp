#include "pmctl/boot_model.h"

#include <algorithm>
#include <map>
#include <string_view>

#include "pmctl/axis.h"
#include "pmctl/boot_path.h"
#include "pmctl/find_name.h"
#include "pmctl/health.h"
#include "pmctl/people.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

// The daemon's begin; without it the moment at which the first service was known.
int64_t BeginNs(const Snapshot& snapshot) {
    int64_t begin = DaemonBeginNs(snapshot);
    for (const Service& service : snapshot.services) {
        const int64_t waiting = service.boot ? service.boot->waitingNs : 0;
        if (waiting > 0 && (begin == 0 || waiting < begin)) {
            begin = waiting;
        }
    }
    return begin;
}

int64_t Since(int64_t begin, int64_t ns) {
    return ns == 0 ? -1 : std::max<int64_t>(ns - begin, 0);
}

// When the first process of each service ended, by the events that are still known.
class FirstEnds {
public:
    explicit FirstEnds(const Snapshot& snapshot) {
        for (const Event& event : snapshot.events) {
            if (event.kind == "service" && event.to == "TERMINATED") {
                ends_.emplace(event.name, &event);  // keeps the first
            }
        }
    }

    // 0 when it has not ended or nobody knows when.
    int64_t Of(const Service& service) const {
        const Event* end = Find(service);
        if (end != nullptr && end->atNs >= service.boot->startedNs) {
            return end->atNs;
        }
        if (service.starts > 1 && service.boot->runningNs == 0) {
            return service.times.startedNs;  // it has ended before that
        }
        return service.starts == 1 && service.pid == 0 ? service.times.endedNs : 0;
    }
    std::string DetailOf(const Service& service) const {
        const Event* end = Find(service);
        return end == nullptr ? service.why : end->detail;
    }

private:
    const Event* Find(const Service& service) const {
        const auto exact = ends_.find(service.name);
        const auto found =
            exact != ends_.end()
                ? exact
                : std::find_if(ends_.begin(), ends_.end(), [&service](const auto& end) {
                      return IsNameInEvent(end.first, service.name);
                  });
        return found == ends_.end() ? nullptr : found->second;
    }

    std::map<std::string_view, const Event*> ends_;
};

BootEntry MakeEntry(const Snapshot& snapshot, const Service& service, int64_t begin,
                    const FirstEnds& ends) {
    BootEntry entry;
    entry.service = &service;
    entry.waiting = std::max<int64_t>(Since(begin, service.boot->waitingNs), 0);
    entry.released = Since(begin, service.boot->releasedNs);
    entry.started = Since(begin, service.boot->startedNs);
    entry.ready = Since(begin, service.boot->runningNs);
    if (entry.started >= 0) {
        entry.ended = Since(begin, ends.Of(service));
        entry.reason = entry.ended >= 0 ? ends.DetailOf(service) : service.why;
    } else {
        entry.reason = service.why;
        const Health health = HealthOf(snapshot, service);
        if (health == Health::FAILED || health == Health::BLOCKED ||
            health == Health::NOT_STARTED) {
            entry.ended = std::max<int64_t>(entry.released, entry.waiting);
        }
    }
    return entry;
}

bool IsStartEarlier(const BootEntry& left, const BootEntry& right) {
    if (left.started < 0 || right.started < 0) {
        return left.started >= 0 && right.started < 0;
    }
    return left.started < right.started;
}

// The daemon's own end of the start-up; -1 when it has not come.
int64_t EndOfStartUp(const Snapshot& snapshot, int64_t begin) {
    for (const Phase& phase : snapshot.daemon.phases) {
        if (phase.name == "running") {
            return Since(begin, phase.atNs);
        }
    }
    return -1;
}

void FindEnd(const Snapshot& snapshot, int64_t begin, BootModel& model) {
    const std::string& phase = snapshot.daemon.phase;
    model.isOver = phase == "running" || phase == "stopping";
    model.end =
        model.isOver ? EndOfStartUp(snapshot, begin) : Since(begin, snapshot.clock.monotonicNs);
    for (const BootEntry& entry : model.entries) {
        model.lastReady = std::max(model.lastReady, entry.ready);
        model.end = std::max({model.end, entry.started, entry.ready});
    }
    for (BootEntry& entry : model.entries) {
        // What ended later belongs to the life of a service that has been ready.
        const bool isLater = entry.ended > model.end;
        entry.ended = !isLater ? entry.ended : entry.ready >= 0 ? -1 : model.end;
        entry.reason = entry.ready >= 0 && entry.ended < 0 ? "" : entry.reason;
    }
}

double Milliseconds(int64_t ns) {
    return ns < 0 ? -1 : static_cast<double>(ns) / NS_PER_MS;
}

}  // namespace

BootModel MakeBootModel(const Snapshot& snapshot) {
    BootModel model;
    const int64_t begin = BeginNs(snapshot);
    const FirstEnds ends(snapshot);
    for (const Service& service : snapshot.services) {
        if (service.boot) {
            model.entries.push_back(MakeEntry(snapshot, service, begin, ends));
        }
    }
    std::stable_sort(model.entries.begin(), model.entries.end(), IsStartEarlier);
    FindEnd(snapshot, begin, model);
    MarkCriticalPath(model);
    return model;
}

Timeline MakeTimeline(const BootModel& model) {
    Timeline timeline;
    timeline.title = BootTitle(model);
    timeline.end = Milliseconds(model.end);
    for (const BootEntry& entry : model.entries) {
        timeline.rows.push_back({.name = entry.service->name,
                                 .waiting = Milliseconds(entry.waiting),
                                 .started = Milliseconds(entry.started),
                                 .ready = Milliseconds(entry.ready),
                                 .ended = Milliseconds(entry.ended),
                                 .isCritical = entry.isCritical,
                                 .note = entry.reason});
    }
    return timeline;
}

std::string BootTitle(const BootModel& model) {
    const std::string title =
        "Start-up of " + Counted(static_cast<int64_t>(model.entries.size()), "service");
    if (!model.isOver) {
        return title + ": still going on after " + FormatMoment(Milliseconds(model.end));
    }
    if (model.lastReady < 0) {
        return title + ": none is running";
    }
    return title + ": " + FormatMoment(Milliseconds(model.lastReady)) + " until the last one ran";
}

}  // namespace ProcMgr::Pmctl
