#include "pmctl/graph_lines.h"

#include <algorithm>
#include <utility>

#include "pmctl/svg.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr double ARROW_LENGTH = 7;
constexpr double ARROW_HALF = 3.5;
// The lines that arrive at a box end beside each other: the room for all, and the distance of two.
constexpr double ENTRY_RANGE = 14;
constexpr double ENTRY_STEP = 4;

}  // namespace

GraphLines::GraphLines(const GraphLayout& layout, const std::vector<LayerSpan>& spans,
                       bool isTurned)
    : layout_(layout), spans_(spans), isTurned_(isTurned), entries_(layout.items.size()) {
    SpreadEntries();
}

// In the order of the begins of the lines, so that they do not cross before a box.
void GraphLines::SpreadEntries() {
    for (size_t index = 0; index < layout_.items.size(); ++index) {
        if (layout_.items[index].vertex == LayoutItem::BEND) {
            continue;
        }
        std::vector<size_t> before = layout_.items[index].before;
        std::sort(before.begin(), before.end(), [this](size_t one, size_t other) {
            return layout_.items[one].centre < layout_.items[other].centre;
        });
        const auto count = static_cast<double>(before.size());
        const double step = before.size() < 2 ? 0 : std::min(ENTRY_STEP, ENTRY_RANGE / (count - 1));
        for (size_t i = 0; i < before.size(); ++i) {
            entries_[index][before[i]] = (static_cast<double>(i) - (count - 1) / 2) * step;
        }
    }
}

double GraphLines::EntryOf(size_t item, size_t before) const {
    const auto found = entries_[item].find(before);
    return layout_.items[item].centre + (found == entries_[item].end() ? 0 : found->second);
}

double GraphLines::EndOf(size_t item) const {
    const LayerSpan& span = spans_[layout_.items[item].layer];
    return span.begin + span.depth;
}

std::string GraphLines::ToText(const Point& point) const {
    const double x = isTurned_ ? point.across : point.along;
    const double y = isTurned_ ? point.along : point.across;
    return SvgNumber(x) + ' ' + SvgNumber(y);
}

// A smooth line in the gap between two layers.
std::string GraphLines::Curve(const Point& from, const Point& to) const {
    const double middle = (from.along + to.along) / 2;
    return "C" + ToText({middle, from.across}) + ' ' + ToText({middle, to.across}) + ' ' +
           ToText(to);
}

// `direction`: 1 when the line arrives in the direction of the main axis, else -1.
std::string GraphLines::Head(const Point& tip, double direction) const {
    const double base = tip.along - direction * ARROW_LENGTH;
    return "M" + ToText(tip) + 'L' + ToText({base, tip.across - ARROW_HALF}) + 'L' +
           ToText({base, tip.across + ARROW_HALF}) + 'Z';
}

SceneLine GraphLines::Make(const std::vector<size_t>& route, bool isBack) const {
    const size_t last = route.back();
    const Point begin{EndOf(route.front()), layout_.items[route.front()].centre};
    const Point end{spans_[layout_.items[last].layer].begin,
                    EntryOf(last, route[route.size() - 2])};
    Point from{begin.along + (isBack ? ARROW_LENGTH : 0), begin.across};
    SceneLine line;
    line.path = "M" + ToText(from);
    for (size_t i = 1; i + 1 < route.size(); ++i) {
        const LayoutItem& bend = layout_.items[route[i]];
        line.path += Curve(from, {spans_[bend.layer].begin, bend.centre});
        from = {EndOf(route[i]), bend.centre};
        line.path += 'L' + ToText(from);
    }
    line.path += Curve(from, {end.along - (isBack ? 0 : ARROW_LENGTH), end.across});
    line.head = isBack ? Head(begin, -1) : Head(end, 1);
    return line;
}

}  // namespace ProcMgr::Pmctl
