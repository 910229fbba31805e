#include "platform/host/muxa_table.h"

#include <limits>
#include <utility>

namespace PlatformHost {

using Wire::LockGuard;

int32_t MuxaTable::NewId() {
    const LockGuard guard(lock_);
    do {
        lastId_ = lastId_ == std::numeric_limits<int32_t>::max() ? 1 : lastId_ + 1;
    } while (entries_.contains(lastId_));
    return lastId_;
}

void MuxaTable::Add(int32_t id, MuxaEntry entry) {
    const LockGuard guard(lock_);
    entries_[id] = std::move(entry);
}

MuxaEntry MuxaTable::Find(int32_t id) {
    const LockGuard guard(lock_);
    const auto found = entries_.find(id);
    return found == entries_.end() ? MuxaEntry{} : found->second;
}

void MuxaTable::Remove(int32_t id) {
    decltype(entries_)::node_type removed;  // destroyed after the lock is released
    const LockGuard guard(lock_);
    removed = entries_.extract(id);
}

bool MuxaTable::Reserve(const std::string& path) {
    const LockGuard guard(lock_);
    return names_.insert(path).second;
}

void MuxaTable::Release(const std::string& path) {
    const LockGuard guard(lock_);
    names_.erase(path);
}

}  // namespace PlatformHost
