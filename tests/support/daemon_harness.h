// Runs the built daemon as on a machine of its own: a PID namespace, an empty /run, a system logger
// that keeps the lines, and private versions of the machine's files. The end-to-end tests use it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/syslog_sink.h"

// One thread uses it; one object at a time in a program. All of it is gone with the object.
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

    // Sets the contents of /proc/cmdline; by default nothing there concerns the daemon.
    static void SetCommandLine(const std::string& text);

    // Starts the daemon. False when there is no process; Error() has the reason.
    bool Start(const std::vector<std::string>& arguments);
    // Starts a second daemon beside the first and waits for its end. Returns its raw wait status;
    // nothing when it was killed after `timeout`.
    std::optional<int> RunAgain(const std::vector<std::string>& arguments,
                                std::chrono::milliseconds timeout) const;
    void Signal(int signal) const;
    bool IsRunning();
    // The daemon's pid in the namespace of the test.
    pid_t GetPid() const { return daemon_; }
    // The raw wait status; nothing when the daemon has not ended within `timeout`.
    std::optional<int> WaitForExit(std::chrono::milliseconds timeout);
    // Kills every process of the namespace and returns when all have ended.
    void KillAll();

    SyslogSink& Log() { return *log_; }

private:
    void LayOut();
    static void LayOutCgroups();

    const std::string program_;
    std::string error_;
    std::unique_ptr<SyslogSink> log_;
    pid_t init_ = -1;  // process 1 of the namespace: its end kills all others
    pid_t daemon_ = -1;
    std::optional<int> status_;
};
