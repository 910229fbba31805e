#include "resource/bind_count.h"

#include <sys/mman.h>
#include <syslog.h>

#include <cerrno>
#include <new>

#include "main/common/log.h"

namespace ProcMgr {
namespace {

// Never unmapped: children may still read the count when the daemon ends.
std::atomic<uint32_t>* MapCount() {
    static_assert(std::atomic<uint32_t>::is_always_lock_free);
    void* page = mmap(nullptr, sizeof(std::atomic<uint32_t>), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        ProcMgrSysLog(LOG_ERR, "PROCMGR: no memory for the count of binds, errno=%d", errno);
        return nullptr;
    }
    return new (page) std::atomic<uint32_t>(0);
}

}  // namespace

BindCount& BindCount::GetInstance() {
    static BindCount instance;
    return instance;
}

BindCount::BindCount() : count_(MapCount()) {}

void BindCount::Raise() {
    if (count_ != nullptr) {
        count_->fetch_add(1);
    }
}

uint32_t BindCount::Get() const {
    return count_ == nullptr ? 0 : count_->load();
}

}  // namespace ProcMgr
