// Runs the built daemon as on a machine of its own: a PID namespace, an empty /run, a system logger
// that keeps what it gets, and files in place of the machine's. Nothing of it outlives the object.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/syslog_sink.h"

// One thread uses it; one at a time in a program.
class DaemonHarness {
public:
    // Lays out the machine: an empty /run, the control groups CtrlCPU and OTHER as plain files, a
    // /etc/passwd with root and "svc" (1000:1000, home /home/svc), an empty /dev/kmsg.
    explicit DaemonHarness(std::string program);
    ~DaemonHarness();
    DaemonHarness(const DaemonHarness&) = delete;
    DaemonHarness& operator=(const DaemonHarness&) = delete;

    // False where the kernel forbids it: skip the test with Error() as the reason.
    bool IsReady() const { return error_.empty(); }
    const std::string& Error() const { return error_; }

    // What the kernel says it was booted with; by default nothing that concerns the daemon.
    static void SetCommandLine(const std::string& text);

    // Executes the daemon. False, with Error() set, when there is no process.
    bool Start(const std::vector<std::string>& arguments);
    // Executes the program once more beside the daemon. The raw wait status; nothing when it had to
    // be killed after `timeout`.
    std::optional<int> RunAgain(const std::vector<std::string>& arguments,
                                std::chrono::milliseconds timeout) const;
    void Signal(int signal) const;
    bool IsRunning();
    // As the test sees it, from outside the namespace.
    pid_t GetPid() const { return daemon_; }
    // The raw wait status; nothing when the daemon has not ended in time.
    std::optional<int> WaitForExit(std::chrono::milliseconds timeout);
    // Kills every process of the namespace and returns when all are gone.
    void KillAll();

    SyslogSink& Log() { return *log_; }

private:
    void LayOut();
    static void LayOutCgroups();

    const std::string program_;
    std::string error_;
    std::unique_ptr<SyslogSink> log_;
    pid_t init_ = -1;  // process 1 of the namespace: when it goes, all go
    pid_t daemon_ = -1;
    std::optional<int> status_;
};
