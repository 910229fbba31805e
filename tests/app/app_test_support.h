// Manifests and child processes for the tests of this room.
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "app/app_info.h"
#include "app/process_launcher.h"
#include "platform/host/manifest_data.h"
#include "platform/manifest.h"

namespace ProcMgr::App {

// Moves a record to `state` over changes that its life cycle has.
inline void MoveTo(AppInfo& app, ProcessState state) {
    if (app.GetState() != INITSTATE && app.GetState() != TERMINATED) {
        app.ChangeState(TERMINATED, ChangeReason::EXITED);
    }
    if (state == INITSTATE || state == app.GetState()) {
        return;
    }
    app.ChangeState(STARTING, ChangeReason::STARTED);
    if (state != STARTING) {
        app.ChangeState(RUNNING, ChangeReason::FOUND_RUNNING);
    }
    if (state == TERMINATING) {
        app.ChangeState(TERMINATING, ChangeReason::TERMINATION);
    } else if (state == TERMINATED) {
        app.ChangeState(TERMINATED, ChangeReason::EXITED);
    } else if (state == RESTARTING) {
        app.ChangeState(RESTARTING, ChangeReason::RESTART);
    }
}

inline ApplicationManifest Manifest(const ManifestData& data) {
    return ApplicationManifest(std::make_shared<const ManifestData>(data));
}

// A service that does nothing, named "svc".
inline ManifestData SomeService() {
    ManifestData data;
    data.name = "svc";
    data.bin = "/bin/true";
    data.coreAffinity = {0};  // the machine need not have the default ones
    return data;
}

// Both stages of a start.
template <typename App>
bool StartNow(App& app, ProcessLauncher& launcher) {
    std::optional<LaunchPlan> plan = launcher.Prepare(app);
    return plan && app.StartProcess(launcher, *plan);
}

// A forked child that waits for a signal; killed and reaped at the end.
class WaitingChild {
public:
    explicit WaitingChild(const char* name = "waiting") {
        // Blocked until the child has its own dispositions: a signal sent at once must not find a
        // handler that another test has installed here.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, &before);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_NAME, name);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (const int deadly : {SIGTERM, SIGINT, SIGUSR1}) {
                signal(deadly, SIG_DFL);
            }
            sigemptyset(&all);
            sigprocmask(SIG_SETMASK, &all, nullptr);
            while (true) {
                pause();
            }
        }
        sigprocmask(SIG_SETMASK, &before, nullptr);
    }
    ~WaitingChild() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            Reap();
        }
    }
    WaitingChild(const WaitingChild&) = delete;
    WaitingChild& operator=(const WaitingChild&) = delete;

    pid_t Pid() const { return pid_; }

    // Waits for its exit and returns the raw status.
    int32_t Reap() {
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

    // Whether it goes on as if nothing had been sent.
    bool IsUntouched() const {
        int status = 0;
        usleep(20000);
        return waitpid(pid_, &status, WNOHANG) == 0;
    }

private:
    pid_t pid_ = -1;
};

// The pid of a process that is gone.
inline pid_t FreePid() {
    WaitingChild child;
    const pid_t pid = child.Pid();
    kill(pid, SIGKILL);
    child.Reap();
    return pid;
}

// The value behind "KEY:" in a status file, without the blanks before it.
inline std::string StatusValue(pid_t pid, const std::string& key) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(key + ":")) {
            const size_t begin = line.find_first_not_of(" \t", key.size() + 1);
            return begin == std::string::npos ? std::string() : line.substr(begin);
        }
    }
    return {};
}

}  // namespace ProcMgr::App
