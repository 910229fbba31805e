// What a container of records keeps beside the records, so that the look-up of an exit and a check
// pass do not walk all of them: the live processes by pid, and the records that a pass has to look
// at. Neither has a lock: the container guards them by its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "main/common/check_requests.h"

namespace ProcMgr::App {

// The records that have a live process, by pid.
template <typename Record>
class ProcessIndex {
public:
    // Reserves the memory of one Add(). Called before a fork, because the process that has been
    // forked must be found in any case.
    void Reserve() {
        if (spare_.empty()) {
            Map made;
            made.try_emplace(0, nullptr);
            spare_ = made.extract(made.begin());
        }
    }

    // Adds the process that has just been forked. Throws nothing after Reserve().
    void Add(Record& record) {
        // An entry that is still there is wrong: code of a library has collected the exit of that
        // process, and the kernel has given the pid to the new one.
        Take(record.pid_);
        spare_.key() = record.pid_;
        spare_.mapped() = &record;
        processes_.insert(std::move(spare_));
    }

    // Removes the process, because its exit is stored now and the pid is about to be freed. Returns
    // its record; null when no record has the process.
    Record* Take(int32_t pid) {
        auto taken = processes_.extract(pid);
        if (taken.empty()) {
            return nullptr;
        }
        Record* const record = taken.mapped();
        if (spare_.empty()) {
            spare_ = std::move(taken);
        }
        return record;
    }

    Record* Find(int32_t pid) const {
        const auto found = processes_.find(pid);
        return found == processes_.end() ? nullptr : found->second;
    }

    bool IsEmpty() const { return processes_.empty(); }

private:
    using Map = std::map<int32_t, Record*>;

    Map processes_;
    typename Map::node_type spare_;
};

// The records to which something has happened since the last pass looked at them. A record has the
// mark isDue_ while a periodic pass has to look at it, and isEnded_ while an extra pass has to,
// because its process has ended.
template <typename Record>
class DueRecords {
public:
    using List = std::vector<Record*>;

    // Reserves memory for a container of `count` records, so that nothing else here throws.
    void Reserve(size_t count) {
        for (List* list : {&due_, &ended_, &passed_}) {
            if (count > list->capacity()) {
                list->reserve(2 * count);
            }
        }
    }

    void Add(Record& record) {
        if (!std::exchange(record.isDue_, true)) {
            due_.push_back(&record);
        }
    }
    void AddEnded(Record& record) {
        Add(record);
        if (!std::exchange(record.isEnded_, true)) {
            ended_.push_back(&record);
        }
    }

    // The records that the pass which begins now looks at, in no order. An extra pass takes them
    // from the next extra passes; a record that it leaves undecided waits for the periodic pass.
    const List& Begin(CheckPass pass) {
        passed_.clear();
        if (pass == CheckPass::PERIODIC) {
            return due_;
        }
        passed_.swap(ended_);
        for (Record* record : passed_) {
            record->isEnded_ = false;
        }
        return passed_;
    }
    // The records that the end of the pass looks at.
    const List& GetPassed(CheckPass pass) const {
        return pass == CheckPass::PERIODIC ? due_ : passed_;
    }

    // Makes `due` the list of the next periodic pass; every record of it is in the list already.
    void Keep(const List& due) {
        for (Record* record : due_) {
            record->isDue_ = false;
        }
        due_.clear();
        for (Record* record : due) {
            Add(*record);
        }
    }

    // Called before a record is destroyed.
    void Drop(Record& record) {
        if (std::exchange(record.isDue_, false)) {
            std::erase(due_, &record);
        }
        if (std::exchange(record.isEnded_, false)) {
            std::erase(ended_, &record);
        }
        std::erase(passed_, &record);
    }

private:
    List due_;
    List ended_;
    List passed_;  // by the extra pass that is under way, or was the last one
};

}  // namespace ProcMgr::App
