// What the daemon says about itself and its services, as plain structs: the status document,
// version 1. Every text in it comes from others: escape it before it is shown.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ProcMgr::Pmctl {

// Times are nanoseconds of CLOCK_MONOTONIC, 0 for never. No number of the document is as large as
// NUMBER_MAX, so sums of two cannot overflow.
inline constexpr int64_t NUMBER_MAX = int64_t{1} << 62;

// The same moment on both clocks: when the document was made.
struct Clocks {
    int64_t monotonicNs = 0;
    int64_t realtimeNs = 0;
};

struct Phase {
    std::string name;
    int64_t atNs = 0;
};

struct DaemonStatus {
    std::string version;
    int64_t pid = 0;
    std::string config;
    std::string configError;  // why the base file was refused; empty when it was not
    bool isQuickStart = false;
    std::string phase;
    std::vector<Phase> phases;  // those entered, in order
    int64_t uptimeMs = 0;       // 0: the daemon does not say
    int64_t cpuMs = 0;
    int64_t rssKib = 0;
    int64_t threads = 0;
    int64_t logLinesDropped = 0;
};

struct Counters {
    int64_t starts = 0;
    int64_t startFailures = 0;
    int64_t exits = 0;
    int64_t unknownExits = 0;
    int64_t stateChanges = 0;
    int64_t statusRequests = 0;
    int64_t statusClientsRefused = 0;
    int64_t statusClientsDropped = 0;
    int64_t outputLinesDropped = 0;
};

// The counters with the keys of the document, for code that treats all alike.
struct CounterField {
    const char* key;
    const char* meaning;
    int64_t Counters::*value;
};
inline constexpr std::array COUNTER_FIELDS = {
    CounterField{"starts", "Processes started", &Counters::starts},
    CounterField{"start_failures", "Starts that failed", &Counters::startFailures},
    CounterField{"exits", "Exits of managed processes", &Counters::exits},
    CounterField{"unknown_exits", "Exits of processes without a record", &Counters::unknownExits},
    CounterField{"state_changes", "Changes of states", &Counters::stateChanges},
    CounterField{"status_requests", "Requests for the status", &Counters::statusRequests},
    CounterField{"status_clients_refused", "Clients of the status socket that were refused",
                 &Counters::statusClientsRefused},
    CounterField{"status_clients_dropped", "Clients of the status socket that were too slow",
                 &Counters::statusClientsDropped},
    CounterField{"output_lines_dropped", "Lines of output of services that were dropped",
                 &Counters::outputLinesDropped},
};

struct LastExit {
    int64_t pid = 0;
    int64_t status = 0;  // raw wait status
    std::string text;
    int64_t atNs = 0;
    bool isExpected = false;
};

struct ServiceTimes {
    int64_t waitingNs = 0;
    int64_t startedNs = 0;
    int64_t runningNs = 0;
    int64_t readyNs = 0;
    int64_t endedNs = 0;
    int64_t changedNs = 0;  // the last change of state
};

// The first start of a service of the base file.
struct BootTimes {
    int64_t waitingNs = 0;
    int64_t releasedNs = 0;
    int64_t startedNs = 0;
    int64_t runningNs = 0;
};

struct Service {
    std::string name;
    std::string kind;  // "service" or "application"
    std::string state;
    int64_t pid = 0;  // 0 without a live process
    std::string owner;
    std::string policy;
    int64_t priority = 0;
    bool isReporting = false;
    bool isReady = false;
    bool hasHeartbeat = false;
    std::string exec;
    int64_t uid = 0;
    int64_t gid = 0;
    std::vector<std::string> depends;
    int64_t starts = 0;
    int64_t restartsInLastMinute = 0;
    std::optional<LastExit> lastExit;
    std::string why;              // why it is not running
    std::string next;             // what the daemon will do next
    bool isSettled = false;       // the daemon will do nothing by itself
    bool hasFailedStart = false;  // the last start was refused or failed
    ServiceTimes times;
    std::optional<BootTimes> boot;
    std::vector<std::pair<std::string, std::string>> groups;  // kind of the group, group
    std::vector<int64_t> cores;
    int64_t cpuMs = 0;
    int64_t rssKib = 0;
    int64_t threads = 0;
    std::string output;
    std::vector<std::string> outputTail;  // only in the answer for one name
};

struct Pipe {
    std::string owner;
    int64_t pid = 0;
    bool isOpen = false;
    int64_t queuedReports = 0;
    int64_t queuedStates = 0;
    int64_t missed = 0;
};

struct Fault {
    std::string node;
    std::string name;
    int64_t event = 0;
    std::string text;
};

struct Event {
    int64_t number = 0;
    int64_t atNs = 0;
    std::string kind;
    std::string name;
    int64_t pid = 0;
    std::string from;
    std::string to;
    std::string cause;
    std::string detail;
};

struct Snapshot {
    Clocks clock;
    DaemonStatus daemon;
    Counters counters;
    std::vector<Service> services;
    std::vector<Service> applications;
    std::vector<Pipe> pipes;
    std::vector<Fault> faults;
    std::vector<Event> events;  // the oldest first
};

struct EventsAnswer {
    Clocks clock;
    int64_t daemonPid = 0;
    std::vector<Event> events;
};

// Read an answer of the daemon. Throw CommandError with EXIT_BAD_ANSWER, which names the field that
// is missing or has a wrong type, the other version, or the refusal of the daemon. Fields that this
// version does not know are ignored.
Snapshot ParseSnapshot(std::string_view answer);
EventsAnswer ParseEvents(std::string_view answer);

}  // namespace ProcMgr::Pmctl
