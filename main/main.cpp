// process-manager BASE_SERVICE_YAML [true]
//
// The resident daemon that starts, supervises and stops the service processes of the platform. The
// first argument names the file of the base services; "true" as the second selects quick start.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "main/boot_trace.h"
#include "main/constants.h"
#include "main/log.h"
#include "main/proc_mgr_env.h"
#include "main/process_manager.h"
#include "main/signals.h"
#include "main/system.h"
#include "platform/access_manager.h"

namespace {

constexpr int EXIT_STATUS_ERROR = -1;

// A daemon that was started with its standard streams closed must not get them as descriptors of
// its own, which its children would then write to.
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

    // The threads allocate little: an arena of its own for each would only cost memory, and make
    // every fork copy more.
    mallopt(M_ARENA_MAX, 1);
    InstallContinueSignal();
    OpenStandardStreams();
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.StorePid();
    OpenLog();
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

    const uint32_t result = ProcMgrRun(path);
    // The shutdown has closed the log; the last word is the daemon's own, too.
    OpenLog();
    if (result == 0) {
        ProcMgrSysLog(LOG_INFO, "process-manager ProcMgrRun finished");
    } else {
        ProcMgrSysLog(LOG_WARNING, "process-manager ProcMgrRun failed");
    }
    ZornRetrieveService();
    CloseLog();
    return static_cast<int>(result);
}
