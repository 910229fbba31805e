// The console's end of its pipe to the daemon. The calls of Agent::OwnerChannel wait for the
// daemon; one thread of the console serves all clients and must not, so this end keeps a queue in
// their place. Connects again whenever the pipe is lost, and then reports the service as RUNNING.
// For one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "message/record_codec.h"
#include "message/request_msg.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Console {

// What the pipe tells the server. The calls are made inside of OnReady(), OnTime() and Post(). They
// may not call the pipe.
class PipeEvents {
public:
    virtual ~PipeEvents() = default;
    // All records of a client's request are with the daemon.
    virtual void OnSent(uint64_t client) = 0;
    // `next`: the client whose query the daemon answers next; 0 without one.
    virtual void OnReport(const Message::AppStateInfo& report, uint64_t next) = 0;
    virtual void OnAnswer(uint64_t client, const std::map<std::string, uint32_t>& statuses) = 0;
    // The connection has ended, or the daemon has taken nothing for STUCK_AFTER; `reason` tells
    // people which. Everything that has been posted is forgotten.
    virtual void OnLost(const char* reason) = 0;
};

class DaemonPipe {
public:
    using Time = std::chrono::steady_clock::time_point;
    // Records that wait for the daemon, and queries without an answer.
    static constexpr size_t QUEUE_MAX = 512;
    static constexpr std::chrono::milliseconds STUCK_AFTER{2000};

    // `events` must outlive this object.
    DaemonPipe(const std::string& service, PipeEvents& events);

    bool IsConnected() const { return fd_.IsValid(); }
    // For poll(); -1 without a connection.
    int GetFd() const { return fd_.Get(); }
    short GetEvents() const;
    // Handles what poll() has found.
    void OnReady(Time now);
    // Connects if it is time, and notices a daemon that takes nothing.
    void OnTime(Time now);
    // When OnTime() has to be called.
    Time GetDeadline() const;

    // Sends or queues the records of a request, whose last one is a query for `names`. `client` is
    // not 0. False, with nothing taken, when there is no connection or no room.
    bool Post(uint64_t client, const Message::Records& records,
              const std::vector<std::string>& names, Time now);
    // Takes back what the daemon has not got yet.
    void Forget(uint64_t client);
    // Reports the service as TERMINATING, if the daemon takes that at once.
    void ReportEnd();

private:
    struct Waiting {
        uint64_t client;  // 0: the report of the service's own state
        Message::RequestMsg record;
        std::set<std::string> names;  // of the query that ends a request, else empty
    };
    struct Query {
        uint64_t client;
        std::set<std::string> names;
    };

    void Connect(Time now);
    void Lose(Time now, const char* reason);
    void Pause(Time now);
    // False when the connection has ended.
    bool Send(Time now);
    bool Receive();
    void Handle(const Message::RequestMsg& record);
    void HandleAnswer(const std::map<std::string, uint32_t>& statuses);

    const std::string path_;
    PipeEvents& events_;
    Wire::UniqueFd fd_;
    std::vector<uint8_t> buffer_;
    std::deque<Waiting> waiting_;
    std::deque<Query> queries_;  // in the order sent
    Time progress_;              // when a record was last sent, or the first one began to wait
    Time connected_;
    Time nextConnect_;
    std::chrono::milliseconds pause_;  // between two attempts to connect
};

}  // namespace ProcMgr::Console
