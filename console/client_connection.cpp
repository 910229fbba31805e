#include "console/client_connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace ProcMgr::Console {
namespace {

constexpr size_t READ_SIZE = 4096;

}  // namespace

ClientConnection::ClientConnection(Wire::UniqueFd fd, uid_t user, Time now)
    : fd_(std::move(fd)), user_(user), requestEnd_(now + REQUEST_TIME), progress_(now) {}

short ClientConnection::GetEvents() const {
    // What follows the line is not read. POLLHUP and POLLERR are always found.
    return static_cast<short>((hasLine_ || isLast_ ? 0 : POLLIN) | (output_.empty() ? 0 : POLLOUT));
}

ClientConnection::Time ClientConnection::GetDeadline() const {
    Time deadline = Time::max();
    if (!hasLine_ && !isLast_) {
        deadline = requestEnd_;
    }
    if (!output_.empty()) {
        deadline = std::min(deadline, progress_ + ANSWER_TIME);
    }
    return session_ && !session_->IsDone() ? std::min(deadline, session_->GetDeadline()) : deadline;
}

std::optional<std::string> ClientConnection::Receive() {
    std::array<char, READ_SIZE> bytes{};
    while (!hasLine_ && input_.size() < REQUEST_MAX) {
        const ssize_t count = recv(fd_.Get(), bytes.data(), bytes.size(), 0);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            return std::nullopt;
        }
        if (count <= 0) {
            isGone_ = true;
            return std::nullopt;
        }
        input_.append(bytes.data(), static_cast<size_t>(count));
        hasLine_ = input_.find('\n') != std::string::npos;
    }
    const size_t end = input_.find('\n');
    if (end < REQUEST_MAX) {
        std::string line = input_.substr(0, end);
        input_ = {};
        return line;
    }
    hasLine_ = true;
    input_ = {};
    Send(DoneLine(Code::REQUEST,
                  "the request is longer than " + std::to_string(REQUEST_MAX) + " bytes"),
         progress_);
    Finish();
    return std::nullopt;
}

ConsoleSession& ClientConnection::Begin(Request request, Time now) {
    return session_.emplace(std::move(request), now);
}

void ClientConnection::Send(const std::string& lines, Time now) {
    if (output_.empty()) {
        progress_ = now;
    }
    output_ += lines;
    Flush(now);
    isGone_ = isGone_ || output_.size() > OUTPUT_MAX;
}

void ClientConnection::Flush(Time now) {
    if (output_.empty() || isGone_) {
        return;
    }
    const ssize_t count =
        send(fd_.Get(), output_.data(), output_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) {
        output_.erase(0, static_cast<size_t>(count));
        progress_ = now;
    } else if (errno != EAGAIN && errno != EINTR) {
        isGone_ = true;
    }
}

void ClientConnection::OnTime(Time now) {
    Flush(now);
    const bool isRequestLate = !hasLine_ && !isLast_ && now >= requestEnd_;
    const bool isAnswerLate = !output_.empty() && now >= progress_ + ANSWER_TIME;
    isGone_ = isGone_ || isRequestLate || isAnswerLate;
}

}  // namespace ProcMgr::Console
