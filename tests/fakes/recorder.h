// The recorder that every fake library is built on: it keeps the calls in order, hands out scripted
// results and runs hooks. FailingCalls is its counterpart for faked system calls.
#pragma once

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/wait.h"

namespace ProcMgr::Fakes {

// Calls of several functions: Key names the function, Entry describes one call, Result is what the
// function returns. If Entry has a member `result`, the returned result is stored there. Any thread
// may use it. Predicates run under the recorder's lock and must not use the recorder; hooks run
// without that lock.
template <typename Key, typename Entry, typename Result = int32_t>
class Recorder {
public:
    using Hook = std::function<void(const Entry&)>;

    // Forgets the calls, the scripted results and the hooks.
    void Reset() {
        const std::lock_guard lock(mutex_);
        results_.clear();
        defaults_.clear();
        hooks_.clear();
        entries_.clear();
    }
    // Appends `count` results to the queue of the function.
    void Push(const Key& key, Result result, int count = 1) {
        const std::lock_guard lock(mutex_);
        results_[key].insert(results_[key].end(), static_cast<size_t>(count), result);
    }
    // The result while the queue of the function is empty.
    void SetDefault(const Key& key, Result result) {
        const std::lock_guard lock(mutex_);
        defaults_.insert_or_assign(key, result);
    }
    // `hook` is called at the beginning of each call of the function, on the caller's thread.
    void SetHook(const Key& key, Hook hook) {
        const std::lock_guard lock(mutex_);
        hooks_[key] = std::move(hook);
    }

    // Records one call and returns its result: the next queued one, else the default of the
    // function, else `fallback`. For the faked functions only.
    Result Add(const Key& key, Entry entry, Result fallback = {}) {
        if (const Hook hook = FindHook(key)) {
            hook(entry);
        }
        const std::lock_guard lock(mutex_);
        Result result = Next(key, fallback);
        if constexpr (requires { entry.result = result; }) {
            entry.result = result;
        }
        entries_.push_back(std::move(entry));
        changed_.notify_all();
        return result;
    }

    // All recorded calls, oldest first.
    std::vector<Entry> Entries() const {
        const std::lock_guard lock(mutex_);
        return entries_;
    }
    template <typename Predicate>
    size_t CountIf(Predicate predicate) const {
        const std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(), predicate));
    }
    // Waits until a call that fulfils `predicate` has been recorded; false after `patience`.
    template <typename Predicate>
    bool WaitFor(Predicate predicate, std::chrono::milliseconds patience = Tests::PATIENCE) const {
        std::unique_lock lock(mutex_);
        // Each entry is looked at once, because whoever records waits for the lock meanwhile. So
        // the answer for an entry must not change later, and Reset() not be called during a wait.
        size_t seen = 0;
        return changed_.wait_for(lock, patience, [&] {
            const auto first =
                entries_.begin() + static_cast<std::ptrdiff_t>(std::min(seen, entries_.size()));
            seen = entries_.size();
            return std::any_of(first, entries_.end(), std::ref(predicate));
        });
    }

private:
    Hook FindHook(const Key& key) const {
        const std::lock_guard lock(mutex_);
        const auto found = hooks_.find(key);
        return found == hooks_.end() ? nullptr : found->second;
    }
    // The caller holds mutex_.
    Result Next(const Key& key, Result fallback) {
        if (auto& queue = results_[key]; !queue.empty()) {
            fallback = std::move(queue.front());
            queue.pop_front();
        } else if (const auto found = defaults_.find(key); found != defaults_.end()) {
            fallback = found->second;
        }
        return fallback;
    }

    mutable std::mutex mutex_;  // guards everything below
    mutable std::condition_variable changed_;
    std::map<Key, std::deque<Result>> results_;
    std::map<Key, Result> defaults_;
    std::map<Key, Hook> hooks_;
    std::vector<Entry> entries_;
};

// System calls as lines of text "NAME ARGUMENTS". One thread.
class FailingCalls {
public:
    // From now on a call whose line begins with `prefix` fails with `error`.
    void Fail(const std::string& prefix, int error) { failures_.emplace_back(prefix, error); }
    const std::vector<std::string>& Calls() const { return calls_; }

    // Records a call. Returns false, with errno set, when it is to fail. For the faked calls only.
    bool Record(const std::string& line) {
        calls_.push_back(line);
        const auto failure =
            std::find_if(failures_.begin(), failures_.end(),
                         [&](const auto& entry) { return line.starts_with(entry.first); });
        if (failure == failures_.end()) {
            return true;
        }
        errno = failure->second;
        return false;
    }

private:
    std::vector<std::string> calls_;
    std::vector<std::pair<std::string, int>> failures_;
};

}  // namespace ProcMgr::Fakes
