// process-manager BASE_SERVICE_YAML [true]
//
// The resident daemon that starts, supervises and stops the service processes of the platform. The
// first argument names the file of the base services; "true" as the second selects quick start.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "main/common/boot_trace.h"
#include "main/common/daemon_signals.h"
#include "main/common/diagnostics.h"
#include "main/common/instance_lock.h"
#include "main/common/log.h"
#include "main/common/paths.h"
#include "main/common/proc_mgr_env.h"
#include "main/common/threads.h"
#include "main/process_manager.h"
#include "platform/access_manager.h"
#include "platform/diagnostics.h"

namespace {

constexpr int EXIT_STATUS_ERROR = -1;
constexpr int EXIT_STATUS_SECOND = 1;
// The time that the access manager's library has for its end.
constexpr std::chrono::milliseconds RETRIEVE_PATIENCE{300};

// Opens the standard streams that are closed. Otherwise files that the daemon opens would get their
// descriptors, and children would write their output into these files.
void OpenStandardStreams() {
    int fd = -1;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        close(fd);
    }
}

int Fail() {
    ProcMgr::CloseLog();
    return EXIT_STATUS_ERROR;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace ProcMgr;

    // One memory arena for all threads, which allocate little: further arenas would cost memory,
    // and every fork would have more to copy.
    mallopt(M_ARENA_MAX, 1);
    InstallContinueSignal();
    OpenStandardStreams();
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.StorePid();
    OpenLog();
    SetDiagnosticSink(LogDiagnostic);
    InstanceLock instance;
    if (const std::optional<pid_t> first = instance.Take()) {
        ProcMgrLog(LOG_ERR, "ProcMgr: another process-manager runs already, pid=%d", *first);
        CloseLog();
        return EXIT_STATUS_SECOND;
    }
    WriteBootTracePoint(POINT_MAIN);
    InstallSignals();
    if (argc < 2) {
        ProcMgrLog(LOG_ERR,
                   "ProcMgr: intput argc num is < 2, please input baseService yaml config path");
        return Fail();
    }
    if (argc >= 3) {
        env.SetQuickStart(std::strcmp(argv[2], "true") == 0);
    }
    if (setenv(ENV_PROC_NAME, PROCMGR_NAME, 1) != 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Master SetProcMgrProcName failed: setenv failed");
        return Fail();
    }
    std::string path;
    if (!StandardizationPath(argv[1], path)) {
        ProcMgrLog(LOG_ERR, "ProcMgr: StandardizationPath failed, path: %s", argv[1]);
        return Fail();
    }
    ProcMgrLog(LOG_INFO, "ProcMgr: main begin: baseServiceCfgPath: %s", path.c_str());
    ProcMgrLog(LOG_INFO, "%s, PM main begin", BootStrace(BOOT_TRACE_TAG).c_str());

    bool isClean = true;
    const uint32_t result = ProcMgrRun(path, isClean);
    // Shutdown() has closed the log.
    OpenLog();
    if (result == 0) {
        ProcMgrSysLog(LOG_INFO, "process-manager ProcMgrRun finished");
    } else {
        ProcMgrSysLog(LOG_WARNING, "process-manager ProcMgrRun failed");
    }
    NamedThread access("access");
    access.Start(ZornRetrieveService);
    isClean = access.Join(std::chrono::steady_clock::now() + RETRIEVE_PATIENCE) && isClean;
    CloseLog();
    if (!isClean) {
        // Threads that have not ended still use objects that a return would destroy.
        _exit(static_cast<int>(result));
    }
    return static_cast<int>(result);
}
