// pmctl boot: the time line of the start-up.
#include <algorithm>
#include <ostream>
#include <string_view>
#include <vector>

#include "pmctl/ask.h"
#include "pmctl/axis.h"
#include "pmctl/boot_model.h"
#include "pmctl/json_output.h"
#include "pmctl/online.h"
#include "pmctl/output_file.h"
#include "pmctl/people.h"
#include "pmctl/status_head.h"
#include "pmctl/svg.h"
#include "pmctl/terminal.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t NAME_COLUMNS_MAX = 24;
constexpr size_t MARK_COLUMNS = 2;
constexpr size_t RESULT_COLUMNS = 9;
constexpr size_t TICK_COLUMNS = 12;  // columns for one tick of the axis

// A time line of characters: a mark, the name, the bar and the result of each service.
class BootText {
public:
    BootText(const Context& context, const BootModel& model)
        : context_(context),
          model_(model),
          nameColumns_(LongestName()),
          barColumns_(TerminalColumns() - MARK_COLUMNS - nameColumns_ - RESULT_COLUMNS - 3) {}

    void Print() const {
        context_.out << BootTitle(model_) << "\n\n" << Axis() << '\n';
        for (const BootEntry& entry : model_.entries) {
            PrintEntry(entry);
        }
        PrintLegend();
        PrintReasons();
    }

private:
    size_t LongestName() const {
        size_t longest = 0;
        for (const BootEntry& entry : model_.entries) {
            longest = std::max(longest, TextColumns(Printable(entry.service->name)));
        }
        return std::min({longest, NAME_COLUMNS_MAX, TerminalColumns() / 3});
    }

    // The column of a time, from 0.
    size_t ColumnOf(double ns) const {
        const double end = static_cast<double>(std::max<int64_t>(model_.end, 1));
        const double share = std::clamp(ns / end, 0.0, 1.0);
        const auto column = static_cast<size_t>(share * static_cast<double>(barColumns_));
        return std::min(column, barColumns_ - 1);
    }

    std::string Axis() const {
        std::string axis(MARK_COLUMNS + nameColumns_ + 1, ' ');
        const size_t begin = axis.size();
        const double end = static_cast<double>(model_.end) / NS_PER_MS;
        for (const Tick& tick : MakeTicks(end, barColumns_ / TICK_COLUMNS)) {
            axis.resize(std::max(begin + ColumnOf(tick.at * NS_PER_MS), axis.size() + 1), ' ');
            axis += tick.label;
        }
        return axis;
    }

    // Waits, then starts, then the moment at which it ran, or at which it failed.
    std::string Bar(const BootEntry& entry) const {
        const Glyphs& glyphs = TerminalGlyphs();
        std::vector<std::string_view> cells(barColumns_, " ");
        const bool isStarted = entry.started >= 0;
        const int64_t waitEnd = isStarted ? entry.started : LastOf(entry);
        Fill(cells, entry.waiting, waitEnd, glyphs.wait);
        if (isStarted) {
            Fill(cells, entry.started, LastOf(entry), glyphs.start);
        }
        if (entry.ready >= 0) {
            cells[ColumnOf(static_cast<double>(entry.ready))] = glyphs.ready;
        }
        if (entry.ended >= 0) {
            cells[ColumnOf(static_cast<double>(entry.ended))] = glyphs.failed;
        }
        std::string bar;
        for (const std::string_view cell : cells) {
            bar += cell;
        }
        return bar;
    }
    // The end of the last bar of an entry.
    int64_t LastOf(const BootEntry& entry) const {
        return entry.ready >= 0 ? entry.ready : entry.ended >= 0 ? entry.ended : model_.end;
    }
    void Fill(std::vector<std::string_view>& cells, int64_t from, int64_t to,
              std::string_view glyph) const {
        const size_t last = ColumnOf(static_cast<double>(to));
        for (size_t i = ColumnOf(static_cast<double>(from)); i <= last; ++i) {
            cells[i] = glyph;
        }
    }

    void PrintEntry(const BootEntry& entry) const {
        const std::string name =
            Fitted(entry.service->name, nameColumns_, TerminalGlyphs().ellipsis);
        const std::string result = ResultOf(entry);
        const bool isBad = entry.ended >= 0;
        const Ink ink = isBad ? Ink::BAD : entry.isCritical ? Ink::STRONG : Ink::PLAIN;
        context_.out << (entry.isCritical ? "* " : "  ")
                     << Painted(context_.hasColours, ink, Padded(name, nameColumns_)) << ' '
                     << Bar(entry) << ' '
                     << std::string(RESULT_COLUMNS - std::min(RESULT_COLUMNS, result.size()), ' ')
                     << Painted(context_.hasColours, isBad ? Ink::BAD : Ink::PLAIN, result) << '\n';
    }
    static std::string ResultOf(const BootEntry& entry) {
        if (entry.ready >= 0) {
            return FormatMoment(static_cast<double>(entry.ready) / NS_PER_MS);
        }
        if (entry.ended >= 0) {
            return entry.started >= 0 ? "failed" : "no start";
        }
        return entry.started >= 0 ? "starting" : "waiting";
    }

    void PrintLegend() const {
        const Glyphs& glyphs = TerminalGlyphs();
        context_.out << '\n'
                     << glyphs.wait << " waits  " << glyphs.start << " starts  " << glyphs.ready
                     << " runs  " << glyphs.failed << " ended  * before a name: critical path\n";
        std::string path;
        for (const std::string& name : model_.critical) {
            path += (path.empty() ? "Critical path: " : " -> ") + Printable(name);
        }
        if (!path.empty()) {
            context_.out << Wrapped(path, TerminalColumns(), 2) << '\n';
        }
    }

    // Why some have not come to run.
    void PrintReasons() const {
        for (const BootEntry& entry : model_.entries) {
            const bool isDone = entry.ready >= 0 && entry.ended < 0;
            if (!isDone && !entry.reason.empty()) {
                context_.out << Wrapped(
                                    Printable(entry.service->name) + ": " + Printable(entry.reason),
                                    TerminalColumns(), 2)
                             << '\n';
            }
        }
    }

    const Context& context_;
    const BootModel& model_;
    const size_t nameColumns_;
    const size_t barColumns_;
};

void PrintConfigError(const Context& context, const Snapshot& snapshot) {
    const std::string text = Printable(ConfigErrorText(snapshot.daemon));
    if (!text.empty()) {
        context.out << Painted(context.hasColours, Ink::BAD, Wrapped(text, TerminalColumns(), 2))
                    << '\n';
    }
}

}  // namespace

void ShowBoot(const Context& context, const std::optional<std::string>& svg) {
    if (svg) {
        RefuseJson(context, "boot --svg");
    }
    const Snapshot snapshot = AskStatus(context).snapshot;
    const BootModel model = MakeBootModel(snapshot);
    if (svg) {
        WriteOutput(context, *svg, DrawTimeline(MakeTimeline(model), SvgKind::STANDALONE));
    } else if (context.isJson) {
        PrintDocument(context, BootJson(model));
    } else {
        PrintConfigError(context, snapshot);
        BootText(context, model).Print();
    }
}

}  // namespace ProcMgr::Pmctl
