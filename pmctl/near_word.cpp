#include "pmctl/near_word.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <vector>

namespace ProcMgr::Pmctl {
namespace {

// Longer words are not compared: the time grows with the product of both lengths.
constexpr size_t LENGTH_MAX = 128;

// The number of characters to insert, to remove, to replace, or to exchange with the next one.
size_t Distance(std::string_view left, std::string_view right) {
    std::vector<size_t> last(right.size() + 1);
    std::vector<size_t> row(right.size() + 1);
    std::vector<size_t> next(right.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= left.size(); ++i) {
        next[0] = i;
        for (size_t j = 1; j <= right.size(); ++j) {
            const size_t replaced = row[j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
            next[j] = std::min({replaced, row[j] + 1, next[j - 1] + 1});
            if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1]) {
                next[j] = std::min(next[j], last[j - 2] + 1);
            }
        }
        last.swap(row);
        row.swap(next);
    }
    return row.back();
}

}  // namespace

std::string NearestWord(std::string_view word, std::span<const std::string_view> known) {
    if (word.empty() || word.size() > LENGTH_MAX) {
        return {};
    }
    size_t limit = std::min(word.size() - 1, std::max<size_t>(2, word.size() / 3));
    std::string_view nearest;
    for (const std::string_view candidate : known) {
        if (candidate.size() > LENGTH_MAX) {
            continue;
        }
        const size_t distance = Distance(word, candidate);
        if (distance < limit || (distance == limit && nearest.empty())) {
            limit = distance;
            nearest = candidate;
        }
    }
    return std::string(nearest);
}

std::string DidYouMean(std::string_view word, std::span<const std::string_view> known) {
    const std::string nearest = NearestWord(word, known);
    return nearest.empty() ? nearest : "did you mean '" + nearest + "'?";
}

}  // namespace ProcMgr::Pmctl
