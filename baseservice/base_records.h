// The records of the base services in start order, with their indices, so that no step of a launch,
// an exit or a check pass walks all records. A part of BaseServices, which guards it by its lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory_resource>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "app/base_app_info.h"
#include "app/record_index.h"

namespace ProcMgr {

class BaseRecords {
public:
    using Record = App::BaseAppInfo;

    // Adds a copy of the record at the end; null when a record of that name is there already. The
    // address of a record does not change.
    Record* Add(const Record& record);
    void Remove(const std::string& name);

    Record* Find(const std::string& name);
    // The record of a service whose process is alive; null for any other name.
    Record* FindLive(const std::string& name);

    // All records, in start order.
    std::pmr::list<Record>& GetAll() { return all_; }

    // False while no record of a priority application has been added.
    bool HasPriority() const { return hasPriority_; }

    // The live processes: a process is added after its fork and taken when its exit is stored.
    App::ProcessIndex<Record>& GetProcesses() { return processes_; }

    // Mark a record for the next pass: something has happened to it, or its process has ended.
    // Throw nothing.
    void AddDue(Record& record) { due_.Add(record); }
    void AddEnded(Record& record) { due_.AddEnded(record); }
    // The records that the pass which begins now looks at, in start order.
    std::vector<Record*> BeginPass(CheckPass pass) { return Sorted(due_.Begin(pass)); }
    // The records that the end of the pass looks at, in start order.
    std::vector<Record*> GetPassed(CheckPass pass) const { return Sorted(due_.GetPassed(pass)); }
    // Takes the mark from all marked records but `due`. Throws nothing.
    void KeepDue(const std::vector<Record*>& due) { due_.Keep(due); }

private:
    using List = std::pmr::list<Record>;

    static std::vector<Record*> Sorted(std::vector<Record*> records);

    // Keeps the records together, apart from the memory that start-up frees: the pages of a record
    // that lies between the manifests could not be given back to the system. A removed record
    // leaves its memory unused; each service is added once.
    static constexpr size_t FIRST_BLOCK = size_t{256} * 1024;
    std::pmr::monotonic_buffer_resource memory_{FIRST_BLOCK};
    List all_{&memory_};
    // The keys refer to the names in the records.
    std::pmr::unordered_map<std::string_view, List::iterator> byName_{&memory_};
    App::ProcessIndex<Record> processes_;
    App::DueRecords<Record> due_;
    uint64_t lastNumber_ = 0;
    bool hasPriority_ = false;
};

}  // namespace ProcMgr
