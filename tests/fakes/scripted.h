// What every fake of a platform function does with its scripted results: gives them out in order,
// then goes on with a default. Used by the fakes, under their own locks.
#pragma once

#include <deque>
#include <utility>

namespace ProcMgr::Fakes {

template <typename Result>
class Scripted {
public:
    explicit Scripted(Result fallback) : fallback_(std::move(fallback)) {}

    void Push(Result result) { results_.push_back(std::move(result)); }

    Result Next() {
        if (results_.empty()) {
            return fallback_;
        }
        Result result = std::move(results_.front());
        results_.pop_front();
        return result;
    }

private:
    std::deque<Result> results_;
    Result fallback_;
};

}  // namespace ProcMgr::Fakes
