// The loop of the console: one thread serves the socket, up to Wire::CLIENTS_MAX clients and the
// pipe to the daemon, and never waits for one of them.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "console/client_connection.h"
#include "console/daemon_pipe.h"
#include "console/request_limit.h"
#include "wire/group_socket.h"

namespace ProcMgr::Console {

class ConsoleServer final : private PipeEvents {
public:
    using Time = std::chrono::steady_clock::time_point;

    // `socket` must outlive this object. `parent`: the process that has started this one.
    ConsoleServer(Wire::GroupSocket& socket, pid_t parent);

    // Returns when `stopFd` is readable, after every client has been told; or when another console
    // has taken the place of this one, see IsLeftBehind().
    void Run(int stopFd);

private:
    void OnSent(uint64_t client) override;
    void OnReport(const Message::AppStateInfo& report, uint64_t next) override;
    void OnAnswer(uint64_t client, const std::map<std::string, uint32_t>& statuses) override;
    void OnLost(const char* reason) override;

    // Waits for an event or the next deadline. Returns what poll() has found, in the order stop,
    // socket, pipe, clients.
    std::vector<pollfd> Wait(int stopFd);
    Time GetDeadline() const;
    void ServeClients(const std::vector<pollfd>& found);
    void Accept();
    void Admit(Wire::UniqueFd fd);
    std::vector<uid_t> GetUsers() const;
    void HandleRequest(uint64_t id, ClientConnection& client, const std::string& line);
    // Passes the request on to the pipe, or answers it with an error.
    void Begin(uint64_t id, ClientConnection& client, Request request);
    // Sends lines of a client's session; they are the last ones when the session is done.
    void Tell(ClientConnection& client, const std::string& lines);
    void CheckTime();
    void RemoveOver();
    void EndSessions(const std::string& error);
    // When the daemon has ended before this process, a new daemon starts a new console, which takes
    // the socket; the pipe has to be left to it.
    bool IsLeftBehind() const;

    Wire::GroupSocket& socket_;
    DaemonPipe pipe_;
    std::map<uint64_t, ClientConnection> clients_;  // by number
    RequestLimit limit_;
    uint64_t lastClient_ = 0;
    Time now_;         // when poll() has returned
    Time nextAccept_;  // accepting has failed: not before this time
    const pid_t parent_;
};

}  // namespace ProcMgr::Console
