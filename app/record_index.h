// What a container of records keeps beside the records, so that the look-up of an exit and a check
// pass do not walk all of them: the live processes by pid, and the records that a pass has to look
// at. Neither has a lock: the container guards them by its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

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
// mark isDue_ while it is in here.
template <typename Record>
class DueRecords {
public:
    // Reserves memory for a container of `count` records, so that Add() throws nothing.
    void Reserve(size_t count) {
        if (count > due_.capacity()) {
            due_.reserve(2 * count);
        }
    }

    void Add(Record& record) {
        if (!std::exchange(record.isDue_, true)) {
            due_.push_back(&record);
        }
    }

    // The records, in no order.
    const std::vector<Record*>& GetList() const { return due_; }

    // Makes `due` the list; every record of it is in the list already. Throws nothing.
    void Keep(const std::vector<Record*>& due) {
        for (Record* record : due_) {
            record->isDue_ = false;
        }
        due_.clear();
        for (Record* record : due) {
            Add(*record);
        }
    }

    // Called before a record is destroyed.
    void Drop(const Record& record) {
        if (record.isDue_) {
            std::erase(due_, &record);
        }
    }

private:
    std::vector<Record*> due_;
};

}  // namespace ProcMgr::App
