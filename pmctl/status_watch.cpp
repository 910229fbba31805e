#include "pmctl/status_watch.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <ostream>
#include <thread>
#include <tuple>

#include "pmctl/ask.h"
#include "pmctl/health.h"
#include "pmctl/json_output.h"
#include "pmctl/people.h"
#include "pmctl/screen.h"
#include "pmctl/status_head.h"
#include "pmctl/status_view.h"
#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr std::chrono::seconds PERIOD{1};
constexpr int64_t MARK_NS = 5'000'000'000;  // a change is marked for so long

// Remembers what the services were and when they changed.
class Changes {
public:
    void Update(const Snapshot& snapshot) {
        std::map<Key, Known> present;
        for (const Service* service : AllOf(snapshot)) {
            const Key key{service->kind, service->name};
            Known known{service->state, service->pid, service->starts, 0};
            const auto before = services_.find(key);
            if (before != services_.end()) {
                const bool isSame = before->second.IsSame(known);
                known.changedNs = isSame ? before->second.changedNs : snapshot.clock.monotonicNs;
            } else if (!isFirst_) {
                known.changedNs = snapshot.clock.monotonicNs;
            }
            present.emplace(key, known);
        }
        services_.swap(present);
        nowNs_ = snapshot.clock.monotonicNs;
        isFirst_ = false;
    }

    bool IsMarked(const Service& service) const {
        const auto known = services_.find({service.kind, service.name});
        return known != services_.end() && known->second.changedNs > 0 &&
               nowNs_ - known->second.changedNs < MARK_NS;
    }

private:
    using Key = std::pair<std::string, std::string>;
    struct Known {
        std::string state;
        int64_t pid;
        int64_t starts;
        int64_t changedNs;

        bool IsSame(const Known& other) const {
            return std::tie(state, pid, starts) == std::tie(other.state, other.pid, other.starts);
        }
    };

    std::map<Key, Known> services_;
    int64_t nowNs_ = 0;
    bool isFirst_ = true;
};

// What has changed and what does not run comes first where not all rows find room.
std::vector<const Service*> Chosen(const Snapshot& snapshot, const Changes& changes, size_t room) {
    std::vector<const Service*> all = AllOf(snapshot);
    if (all.size() > room) {
        std::stable_partition(all.begin(), all.end(), [&](const Service* service) {
            return HealthOf(snapshot, *service) != Health::RUNNING || changes.IsMarked(*service);
        });
        all.resize(room);
    }
    return all;
}

std::vector<std::string> FormatFrame(const Context& context, const Snapshot& snapshot,
                                     const Changes& changes, size_t rowsMax) {
    const size_t width = TerminalColumns();
    std::vector<std::string> lines = FormatHead(snapshot, width, context.hasColours);
    lines.resize(std::min(lines.size(), std::max<size_t>(rowsMax / 3, 1)));
    const size_t frame =
        lines.size() + 4;  // the time, an empty line, the heading, what is left out
    const auto shown = Chosen(snapshot, changes, rowsMax > frame ? rowsMax - frame : 1);
    const size_t left = AllOf(snapshot).size() - shown.size();
    lines.push_back(FormatWall(snapshot.clock, snapshot.clock.monotonicNs) +
                    "; * has changed in the last 5 s");
    lines.emplace_back();
    const auto rows =
        FormatRows(snapshot, shown, width, context.hasColours,
                   [&changes](const Service& service) { return changes.IsMarked(service); });
    lines.insert(lines.end(), rows.begin(), rows.end());
    if (left > 0) {
        lines.push_back("and " + std::to_string(left) + " more");
    }
    return lines;
}

// The next frame; the complaint when the daemon does not answer.
std::vector<std::string> NextFrame(const Context& context, Changes& changes, size_t rowsMax) {
    try {
        const Snapshot snapshot = AskStatus(context).snapshot;
        changes.Update(snapshot);
        return FormatFrame(context, snapshot, changes, rowsMax);
    } catch (const CommandError& error) {
        return {Wrapped(error.what(), TerminalColumns(), 0)};
    }
}

void WatchDocuments(const Context& context) {
    std::string document = AskStatus(context).text;
    while (context.out.good()) {
        PrintDocument(context, document);
        context.out.flush();
        std::this_thread::sleep_for(PERIOD);
        try {
            document = AskStatus(context).text;
        } catch (const CommandError& error) {
            document = ErrorJson(error.what());
        }
    }
}

}  // namespace

void WatchStatus(const Context& context) {
    if (context.isJson) {
        WatchDocuments(context);
        return;
    }
    Changes changes;
    changes.Update(AskStatus(context).snapshot);
    const bool isTerminal = isatty(STDOUT_FILENO) == 1;
    std::optional<Screen> screen;
    if (isTerminal) {
        screen.emplace();
    }
    while (context.out.good()) {
        const auto lines =
            NextFrame(context, changes, isTerminal ? TerminalRows() : static_cast<size_t>(-1));
        if (screen) {
            screen->Draw(lines);
        } else {
            for (const std::string& line : lines) {
                context.out << line << '\n';
            }
            context.out << std::endl;
        }
        std::this_thread::sleep_for(PERIOD);
    }
}

}  // namespace ProcMgr::Pmctl
