#include "baseservice/base_records.h"

#include <algorithm>

namespace ProcMgr {

BaseRecords::Record* BaseRecords::Add(const Record& record) {
    if (byName_.contains(record.appName_)) {
        return nullptr;
    }
    due_.Reserve(all_.size() + 1);
    const auto added = all_.insert(all_.end(), record);
    try {
        byName_.emplace(added->appName_, added);
    } catch (...) {
        all_.erase(added);
        throw;
    }
    added->startNumber_ = ++lastNumber_;
    hasPriority_ = hasPriority_ || added->IsPriority();
    return &*added;
}

void BaseRecords::Remove(const std::string& name) {
    const auto found = byName_.find(name);
    const auto removed = found->second;
    due_.Drop(*removed);
    byName_.erase(found);
    all_.erase(removed);
}

BaseRecords::Record* BaseRecords::Find(const std::string& name) {
    const auto found = byName_.find(name);
    return found == byName_.end() ? nullptr : &*found->second;
}

BaseRecords::Record* BaseRecords::FindLive(const std::string& name) {
    Record* record = Find(name);
    return record != nullptr && record->IsAlive() ? record : nullptr;
}

std::vector<BaseRecords::Record*> BaseRecords::Sorted(std::vector<Record*> records) {
    std::sort(records.begin(), records.end(), [](const Record* one, const Record* other) {
        return one->startNumber_ < other->startNumber_;
    });
    return records;
}

}  // namespace ProcMgr
