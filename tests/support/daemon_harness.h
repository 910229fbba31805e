// Runs the built daemon as on a machine of its own: a PID namespace, an empty /run, a system logger
// that keeps the lines, and private versions of the machine's files. The end-to-end tests use it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/syslog_sink.h"
#include "tests/support/wait.h"

// One thread uses it; one object at a time in a program. All of it is gone with the object.
class DaemonHarness {
public:
    // Lays out the machine: an empty /run, the control groups CtrlCPU and OTHER as plain files, a
    // /etc/passwd with root and "svc" (1000:1000, home /home/svc), an empty /dev/kmsg.
    explicit DaemonHarness(std::string program);
    ~DaemonHarness();
    DaemonHarness(const DaemonHarness&) = delete;
    DaemonHarness& operator=(const DaemonHarness&) = delete;

    // Why the kernel forbids the machine, which is the reason to skip the test; empty without one.
    const std::string& Error() const { return error_; }

    // Sets the contents of /proc/cmdline; by default nothing there concerns the daemon.
    static void SetCommandLine(const std::string& text);

    // Starts the daemon. Throws std::runtime_error when there can be no process.
    void Start(const std::vector<std::string>& arguments);
    // Starts a second daemon beside the first and waits for its end. Returns its raw wait status;
    // nothing when it had to be killed.
    std::optional<int> RunAgain(const std::vector<std::string>& arguments) const;
    void Signal(int signal) const;
    // Whether the daemon has been started, and not been removed by KillAll().
    bool IsStarted() const { return daemon_.has_value(); }
    bool IsRunning() const { return IsStarted() && daemon_->IsRunning(); }
    // The daemon's pid in the namespace of the test.
    pid_t GetPid() const { return daemon_->Pid(); }
    // The raw wait status; nothing when the daemon has not ended within `patience`.
    std::optional<int> WaitForExit(std::chrono::milliseconds patience = ProcMgr::Tests::PATIENCE);
    // Kills every process of the namespace and returns when all have ended.
    void KillAll();

    SyslogSink& Log() { return *log_; }

private:
    void LayOut();

    const std::string program_;
    std::string error_;
    std::unique_ptr<SyslogSink> log_;
    std::optional<ProcMgr::Tests::Child> init_;  // process 1 of the namespace: its end kills all
    std::optional<ProcMgr::Tests::Child> daemon_;
};
