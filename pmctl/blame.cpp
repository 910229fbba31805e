// pmctl blame: what took longest in the start-up.
#include <algorithm>
#include <ostream>

#include "pmctl/ask.h"
#include "pmctl/axis.h"
#include "pmctl/boot_model.h"
#include "pmctl/json_output.h"
#include "pmctl/online.h"
#include "pmctl/people.h"
#include "pmctl/terminal.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t DURATION_COLUMNS = 12;

struct Share {
    const BootEntry* entry;
    int64_t duration;
    std::string note;
};

// From the start to the readiness. What has not become ready took until it ended, or takes until
// now.
std::vector<Share> StartShares(const BootModel& model) {
    std::vector<Share> shares;
    for (const BootEntry& entry : model.entries) {
        if (entry.started < 0) {
            continue;
        }
        const bool isReady = entry.ready >= 0;
        const int64_t end = isReady ? entry.ready : entry.ended >= 0 ? entry.ended : model.end;
        const char* note = isReady ? "" : entry.ended >= 0 ? "failed" : "does not run yet";
        shares.push_back({&entry, end - entry.started, note});
    }
    return shares;
}

// Before the start.
std::vector<Share> WaitShares(const BootModel& model) {
    std::vector<Share> shares;
    for (const BootEntry& entry : model.entries) {
        if (entry.started < 0 && entry.ended >= 0) {
            continue;  // it does not wait
        }
        const int64_t end = entry.started >= 0 ? entry.started : model.end;
        const char* what = entry.isDependency ? "for " : "for its turn after ";
        const std::string note = entry.started < 0          ? entry.reason
                                 : entry.releasedBy.empty() ? ""
                                                            : what + entry.releasedBy;
        shares.push_back({&entry, end - entry.waiting, note});
    }
    return shares;
}

void PrintShares(const Context& context, const char* title, std::vector<Share> shares,
                 size_t linesMax) {
    std::stable_sort(shares.begin(), shares.end(), [](const Share& left, const Share& right) {
        return left.duration > right.duration;
    });
    context.out << title << '\n';
    const size_t lines = linesMax == 0 ? shares.size() : std::min(linesMax, shares.size());
    for (size_t i = 0; i < lines; ++i) {
        const Share& share = shares[i];
        const std::string duration = FormatMoment(static_cast<double>(share.duration) / NS_PER_MS);
        const std::string text =
            share.entry->service->name + (share.note.empty() ? "" : ": " + share.note);
        const size_t indent = DURATION_COLUMNS - std::min(DURATION_COLUMNS, duration.size());
        context.out << std::string(indent, ' ') << duration << "  "
                    << Fitted(text, TerminalColumns() - DURATION_COLUMNS - 2,
                              TerminalGlyphs().ellipsis)
                    << '\n';
    }
    if (lines < shares.size()) {
        context.out << std::string(DURATION_COLUMNS + 2, ' ') << "and " << shares.size() - lines
                    << " more: --lines 0 shows all\n";
    }
}

}  // namespace

void ShowBlame(const Context& context, size_t lines) {
    const Snapshot snapshot = AskStatus(context).snapshot;
    const BootModel model = MakeBootModel(snapshot);
    if (context.isJson) {
        PrintDocument(context, BootJson(model));
        return;
    }
    context.out << BootTitle(model) << '\n';
    PrintShares(context, "From the start until it ran:", StartShares(model), lines);
    PrintShares(context, "Waited before the start:", WaitShares(model), lines);
}

}  // namespace ProcMgr::Pmctl
