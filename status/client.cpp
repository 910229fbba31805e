#include "status/client.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace ProcMgr::Status {

short Client::GetEvents() const {
    switch (state_) {
        case State::READING:
            return POLLIN;
        case State::WRITING:
            return POLLOUT;
        default:
            return 0;
    }
}

SteadyTime Client::GetDeadline() const {
    const SteadyTime end = connected_ + CLIENT_PATIENCE;
    switch (state_) {
        case State::READING:
            return connected_ + REQUEST_PATIENCE;
        case State::WRITING:
            return std::min(end, progressed_ + STALL_PATIENCE);
        default:
            return end;
    }
}

void Client::Handle(short events, SteadyTime now) {
    if (state_ == State::READING && events != 0) {
        Read();
    } else if (state_ == State::WRITING && (events & POLLOUT) != 0) {
        Write(now);
    } else if ((events & (POLLHUP | POLLERR)) != 0) {
        state_ = State::DONE;
    }
}

void Client::Read() {
    const ssize_t size =
        recv(socket_.Get(), line_.data() + size_, line_.size() - size_, MSG_DONTWAIT);
    if (size <= 0) {
        const bool isLater = size < 0 && (errno == EAGAIN || errno == EINTR);
        state_ = isLater ? State::READING : State::DONE;
        return;
    }
    size_ += static_cast<size_t>(size);
    const std::string_view received(line_.data(), size_);
    const size_t end = received.find('\n');
    if (end != std::string_view::npos) {
        request_ = ParseRequest(received.substr(0, end));
        state_ = State::ASKING;
    } else if (size_ == line_.size()) {
        // Too long: the request is unknown.
        state_ = State::ASKING;
    }
}

void Client::Answer(Document document, SteadyTime now) {
    document_ = std::move(document);
    progressed_ = now;
    state_ = State::WRITING;
    Write(now);
}

void Client::Write(SteadyTime now) {
    const ssize_t size = send(socket_.Get(), document_->data() + sent_, document_->size() - sent_,
                              MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0) {
        const bool isLater = errno == EAGAIN || errno == EINTR;
        state_ = isLater ? State::WRITING : State::DONE;
        return;
    }
    sent_ += static_cast<size_t>(size);
    progressed_ = now;
    untaken_ = CountUntaken();
    if (sent_ == document_->size()) {
        state_ = State::DONE;
    }
}

// The socket becomes writable only when the client has taken most of what it holds, so a slow
// client is looked at when its time is over.
void Client::CheckTime(SteadyTime now) {
    if (IsOver() || now < GetDeadline()) {
        return;
    }
    const int untaken = state_ == State::WRITING ? CountUntaken() : 0;
    if (state_ == State::WRITING && untaken < untaken_ && now < connected_ + CLIENT_PATIENCE) {
        untaken_ = untaken;
        progressed_ = now;
        return;
    }
    state_ = State::DROPPED;
}

int Client::CountUntaken() const {
    int count = 0;
    return ioctl(socket_.Get(), SIOCOUTQ, &count) == 0 ? count : 0;
}

}  // namespace ProcMgr::Status
