// The connection of one command to pm-console: the request, and the lines of the answer. For one
// thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "wire/unique_fd.h"

namespace ProcMgr::Pmctl {

class ConsoleClient {
public:
    using Time = std::chrono::steady_clock::time_point;

    // Connects to the socket at `path`. Throws CommandError when nobody listens there, or the user
    // may not connect.
    explicit ConsoleClient(const std::string& path);

    // Sends the line of a request. Throws CommandError when it is longer than the console takes.
    void Send(const std::string& request, Time deadline);

    // WAITING: there is no line before `until`. ENDED: the console has closed the connection.
    enum class Result { LINE, WAITING, ENDED };
    // Waits for the next line, which is without its newline. Throws CommandError for a line of a
    // length that the console never sends.
    Result Receive(Time until, std::string& line);

private:
    bool TakeLine(std::string& line);

    Wire::UniqueFd fd_;
    std::string input_;
};

}  // namespace ProcMgr::Pmctl
