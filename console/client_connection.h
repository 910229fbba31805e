// One client of the console: the bytes of its request line, the bytes that it has not taken yet,
// and the course of its request. A client has REQUEST_TIME for its line and is given up when it
// takes nothing for ANSWER_TIME. For one thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "console/console_session.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Console {

class ClientConnection {
public:
    using Time = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::milliseconds REQUEST_TIME{1000};
    static constexpr std::chrono::milliseconds ANSWER_TIME{2000};
    // Bytes that wait for the client; with more it is given up.
    static constexpr size_t OUTPUT_MAX = 65536;

    // `fd` must not block. `user`: of the peer.
    ClientConnection(Wire::UniqueFd fd, uid_t user, Time now);

    uid_t GetUser() const { return user_; }

    // For poll().
    int GetFd() const { return fd_.Get(); }
    short GetEvents() const;
    // When OnTime() has to be called.
    Time GetDeadline() const;
    // The connection can be closed: all is sent, or the client is gone or given up.
    bool IsOver() const { return isGone_ || (isLast_ && output_.empty()); }

    // Reads. Returns the request line, without its newline, when it is complete. An overlong line
    // is answered here.
    std::optional<std::string> Receive();
    // Sends the lines as far as the client takes them.
    void Send(const std::string& lines, Time now);
    // The lines that have been sent are the last ones.
    void Finish() { isLast_ = true; }
    void GiveUp() { isGone_ = true; }
    // Gives up a client that is late.
    void OnTime(Time now);

    // The course of the request; null until a request has been accepted.
    ConsoleSession* Session() { return session_ ? &*session_ : nullptr; }
    ConsoleSession& Begin(Request request, Time now);

private:
    void Flush(Time now);

    Wire::UniqueFd fd_;
    const uid_t user_;
    std::string input_;
    std::string output_;
    std::optional<ConsoleSession> session_;
    const Time requestEnd_;
    Time progress_;  // when the client last took something, or output_ was last empty
    bool hasLine_ = false;
    bool isLast_ = false;
    bool isGone_ = false;
};

}  // namespace ProcMgr::Console
