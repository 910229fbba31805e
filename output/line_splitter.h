// Splits what one process writes into lines. Longer lines than LENGTH_MAX are cut into several.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "output/line_text.h"

namespace ProcMgr::Output {

// Keeps the line that has no end yet, of at most LENGTH_MAX bytes. One thread.
class LineSplitter {
public:
    static constexpr size_t LENGTH_MAX = 1024;

    // Adds bytes and calls `take` with each line that is complete, without its end.
    template <typename Take>
    void Add(std::string_view bytes, const Take& take) {
        while (!bytes.empty()) {
            const size_t end = bytes.find('\n');
            AddPart(bytes.substr(0, end), take);
            if (end == std::string_view::npos) {
                return;
            }
            bytes.remove_prefix(end + 1);
            // The rest of a flushed line ends here, and there may be none.
            if (!std::exchange(isFlushed_, false) || !partial_.empty()) {
                TakePartial(take);
            }
        }
    }

    // Calls `take` with the line that has no end yet, if there is one. What follows is a new line.
    template <typename Take>
    void Flush(const Take& take) {
        if (!partial_.empty()) {
            TakePartial(take);
            isFlushed_ = true;
        }
    }

    // Forgets the line that has no end yet.
    void Drop() {
        partial_.clear();
        isFlushed_ = false;
    }

    bool HasPartial() const { return !partial_.empty(); }

private:
    template <typename Take>
    void AddPart(std::string_view part, const Take& take) {
        while (partial_.size() + part.size() > LENGTH_MAX) {
            const size_t length = LENGTH_MAX + 1 - partial_.size();
            partial_ += part.substr(0, length);
            part.remove_prefix(length);
            const size_t cut = CutLength(partial_, LENGTH_MAX);
            take(std::string_view(partial_).substr(0, cut));
            partial_.erase(0, cut);
        }
        partial_ += part;
    }
    template <typename Take>
    void TakePartial(const Take& take) {
        take(std::string_view(partial_));
        partial_.clear();
    }

    std::string partial_;
    bool isFlushed_ = false;  // the last line was flushed before its end
};

}  // namespace ProcMgr::Output
