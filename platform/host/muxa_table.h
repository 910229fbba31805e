// The table of the messaging library's descriptors: which pipe, server or peer of a server belongs
// to a descriptor, and which names are in use. Called by platform/messaging.h's functions and by
// the endpoints.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "wire/mutex.h"

namespace PlatformHost {

class MuxaChannel;
class MuxaEndpoint;

// The object of a descriptor: a pipe (both pointers), a server (no channel), or one peer of a
// server (both pointers).
struct MuxaEntry {
    std::shared_ptr<MuxaEndpoint> endpoint;
    std::shared_ptr<MuxaChannel> channel;
};

// Descriptors are numbers of the library and not of the kernel, and a closed one is not given out
// again soon. Thread-safe; the lock is a leaf.
class MuxaTable {
public:
    // Returns a number of 1 or more that is not in use.
    int32_t NewId();
    void Add(int32_t id, MuxaEntry entry);
    // Returns an entry without an endpoint when there is none.
    MuxaEntry Find(int32_t id);
    void Remove(int32_t id);

    // Reserves the name with this socket path; false when it is in use.
    bool Reserve(const std::string& path);
    void Release(const std::string& path);

private:
    Wire::Mutex lock_;
    int32_t lastId_ PROCMGR_GUARDED_BY(lock_) = 0;
    std::map<int32_t, MuxaEntry> entries_ PROCMGR_GUARDED_BY(lock_);
    std::set<std::string> names_ PROCMGR_GUARDED_BY(lock_);
};

}  // namespace PlatformHost
