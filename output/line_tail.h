// The last lines of the output of one service, for those who look at its state.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "output/line_text.h"

namespace ProcMgr::Output {

// Bounded; takes no memory before the first line. Not thread-safe.
class LineTail {
public:
    static constexpr size_t LINES_MAX = 20;
    static constexpr size_t LENGTH_MAX = 200;

    // Adds a line, cut and without control characters; drops the oldest one when there are enough.
    void Add(std::string_view line) {
        Push(MakeHarmless(line.substr(0, CutLength(line, LENGTH_MAX))));
    }
    // Adds the lines of a later tail, and empties it.
    void Take(LineTail& later) {
        std::vector<std::string> lines = later.Get();
        later = {};
        for (std::string& line : lines) {
            Push(std::move(line));
        }
    }

    bool IsEmpty() const { return lines_.empty(); }
    // The lines, oldest first.
    std::vector<std::string> Get() const {
        std::vector<std::string> lines(lines_);
        std::rotate(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(oldest_),
                    lines.end());
        return lines;
    }

private:
    void Push(std::string line) {
        if (lines_.size() < LINES_MAX) {
            lines_.push_back(std::move(line));
        } else {
            lines_[oldest_] = std::move(line);
            oldest_ = (oldest_ + 1) % LINES_MAX;
        }
    }

    std::vector<std::string> lines_;
    size_t oldest_ = 0;  // the index of the oldest line
};

}  // namespace ProcMgr::Output
