#include "pmctl/table.h"

#include <algorithm>

#include "pmctl/people.h"
#include "pmctl/svg.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t GAP = 2;
constexpr size_t FIRST_MIN = 12;   // columns that the first column is not shortened below
constexpr size_t FIRST_FAIR = 20;  // the same, to make room for the last cell
constexpr size_t CELL_MAX = 400;   // columns of a cell

size_t Sum(const std::vector<size_t>& widths) {
    size_t sum = 0;
    for (const size_t width : widths) {
        sum += width == 0 ? 0 : width + (sum == 0 ? 0 : GAP);
    }
    return sum;
}

}  // namespace

std::vector<size_t> Table::NaturalWidths() const {
    std::vector<size_t> widths;
    for (const Column& column : columns_) {
        widths.push_back(TextColumns(column.title));
    }
    for (const auto& row : rows_) {
        const size_t spanning = row.size() < columns_.size() ? row.size() - 1 : row.size();
        for (size_t i = 0; i < spanning; ++i) {
            widths[i] = std::max(widths[i], TextColumns(Fitted(row[i].text, CELL_MAX, "")));
        }
    }
    return widths;
}

std::vector<size_t> Table::WidthsFor(size_t width) const {
    std::vector<size_t> widths = NaturalWidths();
    for (;;) {
        const size_t sum = Sum(widths);
        if (sum <= width) {
            return widths;
        }
        const size_t excess = sum - width;
        if (widths[0] >= FIRST_MIN + excess) {
            widths[0] -= excess;
            return widths;
        }
        size_t worst = 0;
        for (size_t i = 1; i < widths.size(); ++i) {
            const bool isWorse = worst == 0 || columns_[i].rank > columns_[worst].rank;
            worst = widths[i] > 0 && columns_[i].rank > 0 && isWorse ? i : worst;
        }
        if (worst == 0) {
            widths[0] = std::max(FIRST_MIN, widths[0] - std::min(widths[0], excess));
            return widths;
        }
        widths[worst] = 0;
    }
}

size_t Table::SpanningWidth(const std::vector<size_t>& widths) const {
    size_t longest = 0;
    for (const auto& row : rows_) {
        if (row.size() < columns_.size()) {
            const auto end = widths.begin() + static_cast<std::ptrdiff_t>(row.size() - 1);
            longest = std::max(longest, Sum({widths.begin(), end}) + GAP +
                                            TextColumns(Fitted(row.back().text, CELL_MAX, "")));
        }
    }
    return longest;
}

std::string Table::Line(const std::vector<Cell>& row, const std::vector<size_t>& widths,
                        size_t width, bool hasColours) const {
    const std::string_view ellipsis = TerminalGlyphs().ellipsis;
    std::string line;
    size_t used = 0;
    for (size_t i = 0; i < row.size(); ++i) {
        const bool isSpanning = i + 1 == row.size() && row.size() < columns_.size();
        const size_t begin = used == 0 ? 0 : used + GAP;
        const size_t rest = width > begin ? width - begin : 0;
        const size_t room = isSpanning ? rest : std::min(widths[i], rest);
        if (room < ellipsis.size()) {
            continue;
        }
        const std::string text = Fitted(row[i].text, room, ellipsis);
        const size_t blanks = room - TextColumns(text);
        line.append(begin - used, ' ');
        line.append(columns_[i].isRight && !isSpanning ? blanks : 0, ' ');
        line += Painted(hasColours, row[i].ink, text);
        line.append(columns_[i].isRight && !isSpanning ? 0 : blanks, ' ');
        used = begin + room;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::vector<std::string> Table::Lines(size_t width, bool hasColours) const {
    std::vector<size_t> widths = WidthsFor(width);
    const size_t wanted = SpanningWidth(widths);
    if (wanted > width && widths[0] > FIRST_FAIR) {
        widths[0] -= std::min(wanted - width, widths[0] - FIRST_FAIR);
    }
    std::vector<Cell> titles;
    for (const Column& column : columns_) {
        titles.push_back({column.title, Ink::QUIET});
    }
    std::vector<std::string> lines{Line(titles, widths, width, hasColours)};
    for (const auto& row : rows_) {
        lines.push_back(Line(row, widths, width, hasColours));
    }
    return lines;
}

}  // namespace ProcMgr::Pmctl
