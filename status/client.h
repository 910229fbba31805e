// One client of the status endpoint: reads its request, then writes the answer, never waiting. The
// status thread uses it.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "main/common/clock.h"
#include "status/request.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Status {

// How long a client may take.
inline constexpr std::chrono::seconds REQUEST_PATIENCE{1};  // for its request
inline constexpr std::chrono::seconds STALL_PATIENCE{2};    // to take anything of the answer
inline constexpr std::chrono::seconds CLIENT_PATIENCE{10};  // in all

// A document that several clients may be reading.
using Document = std::shared_ptr<const std::string>;

class Client {
public:
    // READING the request; ASKING: the request is complete, the answer is missing; WRITING the
    // answer; DONE: served, or gone; DROPPED: too slow, or there is no answer.
    enum class State { READING, ASKING, WRITING, DONE, DROPPED };

    // `user`: of the peer.
    Client(Wire::UniqueFd socket, uid_t user, SteadyTime now)
        : socket_(std::move(socket)), user_(user), connected_(now) {}

    State GetState() const { return state_; }
    bool IsOver() const { return state_ == State::DONE || state_ == State::DROPPED; }
    int GetFd() const { return socket_.Get(); }
    uid_t GetUser() const { return user_; }
    // The events for poll.
    short GetEvents() const;
    // The time at which CheckTime() is to be called.
    SteadyTime GetDeadline() const;
    const Request& GetRequest() const { return request_; }
    const Document& GetDocument() const { return document_; }
    // Whether this document is being written.
    bool IsReading(const Document& document) const {
        return state_ == State::WRITING && document_ == document;
    }

    // Takes what poll has found.
    void Handle(short events, SteadyTime now);
    // Gives the answer to a client that is ASKING.
    void Answer(Document document, SteadyTime now);
    void Drop() { state_ = State::DROPPED; }
    void CheckTime(SteadyTime now);

private:
    void Read();
    void Write(SteadyTime now);
    // The bytes that the client has not taken from the socket yet.
    int CountUntaken() const;

    Wire::UniqueFd socket_;
    const uid_t user_;
    const SteadyTime connected_;
    State state_ = State::READING;
    std::array<char, REQUEST_SIZE> line_{};
    size_t size_ = 0;  // of line_
    Request request_;
    Document document_;
    size_t sent_ = 0;          // of the document
    SteadyTime progressed_{};  // the client has taken something
    int untaken_ = 0;          // at that time
};

}  // namespace ProcMgr::Status
