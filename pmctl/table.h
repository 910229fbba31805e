// A table of text that fits the width of a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {

struct Column {
    std::string title;
    bool isRight = false;  // numbers are aligned at the right
    // Columns that may be left out where the table is too wide: the highest number first. 0: stays.
    int rank = 0;
};

struct Cell {
    std::string text;
    Ink ink = Ink::PLAIN;
};

// Columns are separated by two blanks. The first column is shortened first, then columns are left
// out. The last cell of a row with fewer cells than columns takes the rest of the line; a long
// first column makes room for it.
class Table {
public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void Add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
    size_t Size() const { return rows_.size(); }

    // The heading and all rows as lines of at most `width` columns. Control characters in cells are
    // escaped.
    std::vector<std::string> Lines(size_t width, bool hasColours) const;

private:
    std::vector<size_t> NaturalWidths() const;
    // 0 for a column that is left out.
    std::vector<size_t> WidthsFor(size_t width) const;
    // The columns of the longest row whose last cell takes the rest of the line.
    size_t SpanningWidth(const std::vector<size_t>& widths) const;
    std::string Line(const std::vector<Cell>& row, const std::vector<size_t>& widths, size_t width,
                     bool hasColours) const;

    const std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

}  // namespace ProcMgr::Pmctl
