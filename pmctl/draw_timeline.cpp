#include <algorithm>
#include <string_view>

#include "pmctl/axis.h"
#include "pmctl/drawing.h"
#include "pmctl/svg.h"

namespace ProcMgr::Pmctl {
namespace {

// Pixels.
constexpr double MARGIN = 16;
constexpr double WIDTH = 1160;
constexpr double HEADING_Y = 28;
constexpr double LEGEND_Y = 50;
constexpr double AXIS_Y = 82;
constexpr double ROW_HEIGHT = 20;
constexpr double ROW_HEIGHT_DENSE = 15;
constexpr double RESULT_WIDTH = 84;
constexpr double THIN = 3;
constexpr double DOT = 8;
constexpr double TICK_WIDTH = 100;
constexpr double SHORTEST_BAR = 2;

constexpr size_t DENSE_ROWS = 60;   // from here on the rows are narrow
constexpr size_t BOTTOM_ROWS = 30;  // from here on the axis is repeated at the bottom
constexpr size_t NAME_COLUMNS_MAX = 28;

bool HasFailed(const TimelineRow& row) {
    return row.ended >= 0 && row.ready < 0;
}

// The word or the time at the right end of a row.
std::string ResultOf(const TimelineRow& row) {
    if (row.ready >= 0) {
        return FormatMoment(row.ready);
    }
    if (row.ended >= 0) {
        return row.started >= 0 ? "failed" : "no start";
    }
    return row.started >= 0 ? "starting" : "waiting";
}

std::string ToolTip(const TimelineRow& row) {
    std::string text = row.name;
    if (row.isCritical) {
        text += " (critical path)";
    }
    if (row.started >= 0) {
        text += "\nwaited " + FormatMoment(row.started - row.waiting) + ", started at " +
                FormatMoment(row.started);
    } else {
        text += "\nnot started, known since " + FormatMoment(row.waiting);
    }
    if (row.ready >= 0) {
        text += "\nran at " + FormatMoment(row.ready) + ", " +
                FormatMoment(row.ready - row.started) + " after its start";
    }
    if (row.ended >= 0) {
        text += "\nended at " + FormatMoment(row.ended);
    }
    return text + (row.note.empty() ? "" : '\n' + row.note);
}

// Lays the rows out and draws them one after the other.
class TimelinePicture {
public:
    TimelinePicture(const Timeline& timeline, SvgKind kind)
        : timeline_(timeline),
          end_(std::max(timeline.end, 0.001)),
          rowHeight_(timeline.rows.size() >= DENSE_ROWS ? ROW_HEIGHT_DENSE : ROW_HEIGHT),
          left_(MARGIN + NameWidth(timeline) + 10),
          right_(WIDTH - MARGIN - RESULT_WIDTH),
          bottom_(AXIS_Y + 8 + rowHeight_ * static_cast<double>(timeline.rows.size())),
          picture_(kind, WIDTH, bottom_ + (HasBottomAxis() ? 34 : 14), timeline.title) {}

    std::string Draw() {
        picture_.Text(MARGIN, HEADING_Y, timeline_.title, "heading");
        DrawLegend();
        DrawAxis();
        DrawCriticalLinks();
        for (size_t i = 0; i < timeline_.rows.size(); ++i) {
            DrawRow(timeline_.rows[i], AXIS_Y + 8 + rowHeight_ * static_cast<double>(i));
        }
        return picture_.Finish();
    }

private:
    static double NameWidth(const Timeline& timeline) {
        size_t columns = 8;
        for (const TimelineRow& row : timeline.rows) {
            columns = std::max(columns, TextColumns(row.name));
        }
        return TextWidth(std::string(std::min(columns, NAME_COLUMNS_MAX), 'm'));
    }
    bool HasBottomAxis() const { return timeline_.rows.size() >= BOTTOM_ROWS; }

    double XOf(double ms) const {
        return left_ + (right_ - left_) * std::clamp(ms / end_, 0.0, 1.0);
    }

    void DrawAxis() {
        const auto ticksMax = static_cast<size_t>((right_ - left_) / TICK_WIDTH);
        for (const Tick& tick : MakeTicks(end_, ticksMax)) {
            const double x = XOf(tick.at);
            picture_.Line(x, AXIS_Y, x, bottom_, "grid");
            picture_.Text(x, AXIS_Y - 6, tick.label, "quiet middle");
            if (HasBottomAxis()) {
                picture_.Text(x, bottom_ + 18, tick.label, "quiet middle");
            }
        }
        picture_.Line(left_, AXIS_Y, right_, AXIS_Y, "axis");
        if (HasBottomAxis()) {
            picture_.Line(left_, bottom_, right_, bottom_, "axis");
        }
    }

    // One sample; returns where the next one begins.
    double Sample(double x, double height, std::string_view classes, std::string_view text) {
        constexpr double SAMPLE_WIDTH = 22;
        picture_.Box(x, LEGEND_Y - 4 - height / 2, SAMPLE_WIDTH, height, classes, 2);
        picture_.Text(x + SAMPLE_WIDTH + 6, LEGEND_Y, text, "quiet");
        return x + SAMPLE_WIDTH + 6 + TextWidth(text) + 20;
    }
    void DrawLegend() {
        double x = Sample(MARGIN, THIN, "bar-wait", "waits");
        x = Sample(x, 10, "bar-start", "starts");
        x = Sample(x, THIN, "bar-run", "runs");
        x = Sample(x, 10, "bar-fail", "failed");
        Sample(x, 10, "bar-start critical", "critical path");
    }

    // From the readiness of each service of the critical path down to the start of the next.
    void DrawCriticalLinks() {
        const TimelineRow* before = nullptr;
        double beforeY = 0;
        for (size_t i = 0; i < timeline_.rows.size(); ++i) {
            const TimelineRow& row = timeline_.rows[i];
            if (!row.isCritical) {
                continue;
            }
            const double y = AXIS_Y + 8 + rowHeight_ * (static_cast<double>(i) + 0.5);
            if (before != nullptr) {
                const bool isReadyBefore = before->ready >= 0 && before->ready <= row.started;
                const double x = XOf(isReadyBefore ? before->ready : before->started);
                picture_.Path("M" + SvgNumber(x) + ' ' + SvgNumber(beforeY) + 'V' + SvgNumber(y) +
                                  'H' + SvgNumber(XOf(row.started)),
                              "critical");
            }
            before = &row;
            beforeY = y;
        }
    }

    void DrawRow(const TimelineRow& row, double y) {
        const bool hasFailed = HasFailed(row);
        const double base = y + rowHeight_ / 2 + 4;
        picture_.BeginGroup("", ToolTip(row));
        const std::string_view ink = hasFailed ? "bad end" : row.isCritical ? "strong end" : "end";
        picture_.Text(left_ - 10, base, ShortenedText(row.name, NAME_COLUMNS_MAX), ink);
        const Reason reason = PlaceReason(row);
        DrawBars(row, y, reason);
        if (!reason.text.empty()) {
            picture_.Text(reason.x, base, reason.text, "bad");
        }
        picture_.Text(WIDTH - MARGIN, base, ResultOf(row), hasFailed ? "bad end" : "quiet end");
        picture_.EndGroup();
    }

    // Why a start has failed, as a text in the row.
    struct Reason {
        std::string text;  // empty: there is none
        double x = 0;      // of its begin
        bool isBefore = false;
    };
    // Behind the bar when there is room, else before it, in place of the line of the wait.
    Reason PlaceReason(const TimelineRow& row) const {
        constexpr double GAP = 8;
        if (!HasFailed(row) || row.note.empty()) {
            return {};
        }
        const double behind = XOf(row.ended) + GAP;
        const double before = XOf(row.started >= 0 ? row.started : row.ended) - GAP;
        const bool isBehind = right_ - behind >= std::min(TextWidth(row.note), before - left_);
        const double room = std::max(isBehind ? right_ - behind : before - left_, 0.0);
        const std::string text =
            ShortenedText(row.note, static_cast<size_t>(room / TextWidth("m")) + 1);
        return {text, isBehind ? behind : before - TextWidth(text), !isBehind};
    }

    void DrawBars(const TimelineRow& row, double y, const Reason& reason) {
        const double last = row.ended >= 0 ? row.ended : end_;
        const double waitEnd = XOf(row.started >= 0 ? row.started : last);
        DrawBar(XOf(row.waiting), reason.isBefore ? std::min(waitEnd, reason.x - 6) : waitEnd, y,
                THIN, "bar-wait");
        if (row.started < 0) {
            return;
        }
        if (row.ready >= 0) {
            DrawBar(XOf(row.ready), XOf(std::max(last, row.ready)), y, THIN, "bar-run");
        }
        const std::string classes = std::string(HasFailed(row) ? "bar-fail" : "bar-start") +
                                    (row.isCritical ? " critical" : "");
        const double startEnd = XOf(row.ready >= 0 ? row.ready : last);
        DrawBar(XOf(row.started), startEnd, y, rowHeight_ - 6, classes);
        if (row.ready >= 0) {
            picture_.Box(startEnd - DOT / 2, y + (rowHeight_ - DOT) / 2, DOT, DOT, "bar-run",
                         DOT / 2);
        }
        if (row.ready >= 0 && row.ended >= 0) {
            picture_.Box(XOf(row.ended) - THIN / 2, y + 2, THIN, rowHeight_ - 4, "bar-fail", 0);
        }
    }

    // A bar in the middle of a row; one that would not be seen is made longer, one that ends before
    // its begin is left out.
    void DrawBar(double from, double to, double y, double height, std::string_view classes) {
        if (to < from) {
            return;
        }
        const double x = std::min(from, right_ - SHORTEST_BAR);
        picture_.Box(x, y + (rowHeight_ - height) / 2, std::max(to - x, SHORTEST_BAR), height,
                     classes, height > THIN ? 2 : 0);
    }

    const Timeline& timeline_;
    const double end_;
    const double rowHeight_;
    const double left_;
    const double right_;
    const double bottom_;
    SvgPicture picture_;
};

}  // namespace

std::string DrawTimeline(const Timeline& timeline, SvgKind kind) {
    return TimelinePicture(timeline, kind).Draw();
}

}  // namespace ProcMgr::Pmctl
