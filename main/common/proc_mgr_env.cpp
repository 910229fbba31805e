#include "main/common/proc_mgr_env.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "main/common/boot_trace.h"
#include "main/common/log.h"

namespace ProcMgr {
namespace {

constexpr int CHILD_ERROR_PIPE_SIZE = 1 << 20;

}  // namespace

ProcMgrEnv& ProcMgrEnv::GetInstance() {
    static ProcMgrEnv instance;
    return instance;
}

void ProcMgrEnv::SetQuickStart(bool quickStart) {
    quickStart_ = quickStart;
    SetLogToKernel(quickStart);
}

void ProcMgrEnv::StorePid() {
    pid_ = getpid();
}

void ProcMgrEnv::CreateChildErrorPipe() {
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0) {
        ProcMgrLog(LOG_WARNING, "PROCMGR: creat anonymous pipe failed, errno=%d", errno);
        return;
    }
    fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    fcntl(ends[1], F_SETFD, FD_CLOEXEC);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    // Room for the error texts of many children that fail at once. The kernel may refuse the size;
    // the pipe then keeps its default.
    fcntl(ends[1], F_SETPIPE_SZ, CHILD_ERROR_PIPE_SIZE);
    childErrorReadFd_ = ends[0];
    childErrorWriteFd_ = ends[1];
    ProcMgrLog(LOG_WARNING,
               "%s PROCMGR: creat anonymous pipe success, read pipe fd=%d, write pipe fd=%d",
               BootStrace(BOOT_TRACE_TAG).c_str(), ends[0], ends[1]);
}

void ProcMgrEnv::CloseChildErrorPipe() {
    for (std::atomic<int>* fd : {&childErrorReadFd_, &childErrorWriteFd_}) {
        if (*fd >= 0) {
            close(*fd);
        }
        *fd = -1;
    }
}

}  // namespace ProcMgr
