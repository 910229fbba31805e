// The server of the status endpoint: one thread that serves all clients with poll. What a client
// sends is bounded in size and time, and so is what clients together cost: documents are made one
// at a time, and clients accepted, with pauses in proportion to the time that they take.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "main/common/clock.h"
#include "main/common/threads.h"
#include "status/client.h"
#include "status/request.h"
#include "status/snapshot.h"
#include "wire/group_socket.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Status {

class StatusServer {
public:
    // Makes the answer to a request; called on the status thread, without a lock.
    using Answerer = std::function<std::string(const Request& request)>;

    explicit StatusServer(Answerer answerer) : answerer_(std::move(answerer)) {}
    ~StatusServer() { Stop(); }
    StatusServer(const StatusServer&) = delete;
    StatusServer& operator=(const StatusServer&) = delete;

    // Starts the thread. It makes the socket at `path`; without it, it ends with a log line. The
    // members of `group` may ask, with an empty or unknown group only root.
    void Start(std::string path, std::string group);
    // Wakes the thread, which then ends. Does nothing when it has not been started.
    void Stop();
    // False when the thread still runs at `end`.
    bool Join(SteadyTime end) { return thread_.Join(end); }

    // Callable from any thread.
    ServerCounters GetCounters() const;

private:
    // The body of the thread and its steps.
    void Run(const std::string& path, const std::string& group);
    // True when the thread is to end.
    bool RunOnce();
    bool Wait();
    void Accept(SteadyTime now);
    // Accepts nobody for a time in proportion to that of the present turn.
    void PauseAccepting();
    void Admit(Wire::UniqueFd socket, SteadyTime now);
    void AnswerAll();
    // False when the client has to wait.
    bool TryAnswer(Client& client);
    // Makes a document, unless it is too soon or too many are being read; null then.
    Document Make(const Request& request, SteadyTime now);
    bool MayMake() const;
    void RemoveOver();
    int GetTimeout() const;

    const Answerer answerer_;
    Wire::UniqueFd wake_;  // an event descriptor
    std::atomic<uint64_t> requests_{0};
    std::atomic<uint64_t> refused_{0};
    std::atomic<uint64_t> dropped_{0};

    // Used by the thread alone.
    Wire::GroupSocket listener_;
    std::vector<std::unique_ptr<Client>> clients_;  // in the order of their coming
    Document shared_;                               // the last whole document, while it is fresh
    SteadyTime sharedUntil_{};
    SteadyTime nextMake_{};            // the earliest time for the next document
    SteadyTime acceptFrom_{};          // no client is accepted before
    bool hasEvents_ = false;           // something has happened in this turn
    std::chrono::nanoseconds used_{};  // processor time of the thread at the last pause

    NamedThread thread_{"status"};  // last: it is joined before the rest is destroyed
};

}  // namespace ProcMgr::Status
