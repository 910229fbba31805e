#include "app/exit_status.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>

#include "main/common/log.h"

namespace ProcMgr::App {
namespace {

constexpr int CORE_DUMP_BIT = 0x80;

struct SignalText {
    int signal;
    const char* format;  // its arguments: name, pid, signal
};

constexpr std::array SIGNAL_TEXTS = {
    SignalText{SIGABRT, "PROCMGR : Process=%s, pid=%d terminated by calling abort(), signal=%d"},
    SignalText{SIGILL,
               "PROCMGR : Process=%s, pid=%d terminated by illegal instruction by signal=%d"},
    SignalText{SIGTRAP, "PROCMGR : Process=%s, pid=%d terminated by trap signal=%d"},
    SignalText{SIGINT, "PROCMGR : Process=%s, pid=%d terminated by interrupt signal=%d"},
    SignalText{SIGTERM, "PROCMGR : Process=%s, pid=%d terminated by calling Term(), signal=%d"},
    SignalText{SIGSTOP, "PROCMGR : Process=%s, pid=%d stopped by signal=%d"},
    SignalText{SIGKILL, "PROCMGR : Process=%s, pid=%d terminated by calling Kill(), signal=%d"},
};

void LogSignal(int signal, const char* name, int32_t pid) {
    const auto* row =
        std::find_if(SIGNAL_TEXTS.begin(), SIGNAL_TEXTS.end(),
                     [signal](const SignalText& text) { return text.signal == signal; });
    if (row != SIGNAL_TEXTS.end()) {
        ProcMgrLog(LOG_WARNING, row->format, name, pid, signal);
        return;
    }
    ProcMgrLog(LOG_ERR, "PROCMGR : Process=%s, pid=%d got unexpected signal=%d", name, pid, signal);
}

}  // namespace

void LogExitStatus(int32_t status, const std::string& appName, int32_t pid) {
    const char* name = appName.c_str();
    if (WIFEXITED(status)) {
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : Process=%s, pid=%d was self terminated, the exit status is %d.", name,
                   pid, WEXITSTATUS(status));
    } else if (!WIFSIGNALED(status)) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : Process=%s, pid=%d was unexpectedly terminated", name,
                   pid);
    } else if (WCOREDUMP(status)) {
        ProcMgrLog(LOG_ERR, "PROCMGR: Process=%s, pid=%d was coredump", name, pid);
    } else {
        LogSignal(WTERMSIG(status), name, pid);
    }
}

int32_t ToWaitStatus(const siginfo_t& info) {
    switch (info.si_code) {
        case CLD_EXITED:
            return W_EXITCODE(info.si_status, 0);
        case CLD_DUMPED:
            return info.si_status | CORE_DUMP_BIT;
        default:
            return info.si_status;
    }
}

}  // namespace ProcMgr::App
