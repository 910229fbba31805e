#include "platform/host/muxa_channel.h"

#include <sys/epoll.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>

#include "platform/host/diagnostics.h"

namespace PlatformHost {

namespace {

constexpr size_t MAX_QUEUED = 256;
// For one peer of a server.
constexpr std::ptrdiff_t MAX_ANSWERS = 16;

// The line whose callback runs on this thread, 0 outside of callbacks.
thread_local int32_t deliveringId = 0;

}  // namespace

void MuxaGate::Call(int32_t fd, const MuxaRequest* request) {
    {
        const std::lock_guard guard(lock_);
        if (isClosing_) {
            return;
        }
        ++running_;
    }
    try {
        callback_(fd, request, name_);
    } catch (...) {
        // A handler that fails on one record must not take the process down; the record is lost.
        ProcMgr::WriteDiagnostic(LOG_ERR, "messaging: a handler has failed, its record is lost");
    }
    const std::lock_guard guard(lock_);
    --running_;
}

int32_t MuxaGate::Close() {
    const std::lock_guard guard(lock_);
    if (isClosed_) {
        return -EBADF;
    }
    isClosing_ = true;
    if (running_ > 0) {
        return -EBUSY;
    }
    isClosed_ = true;
    return 0;
}

bool MuxaGate::IsClosing() {
    const std::lock_guard guard(lock_);
    return isClosing_;
}

uint64_t MuxaChannel::Token() const {
    return static_cast<uint64_t>(id_);
}

bool MuxaChannel::Attach(AcceptedPeer peer) {
    const std::lock_guard guard(lock_);
    if (isShut_ || !workers_.Watch(peer.socket.Get(), EPOLLIN, Token())) {
        return false;
    }
    socket_ = std::move(peer.socket);
    credentials_ = peer.credentials;
    isBroken_ = false;
    lastRequest_ = std::chrono::steady_clock::now();
    FlushLocked();
    ArmLocked();
    return true;
}

bool MuxaChannel::OnReady(std::span<uint8_t> buffer) {
    MuxaRequest request;
    Step step = Step::NOTHING;
    bool isTold = false;
    {
        const std::lock_guard guard(lock_);
        if (!socket_.IsValid()) {
            return false;
        }
        FlushLocked();
        step = isDelivering_ ? Step::NOTHING : ReadLocked(buffer, request);
        isDelivering_ = isDelivering_ || step != Step::NOTHING;
        isTold = !isClosing_;
        ArmLocked();
    }
    if (step == Step::NOTHING) {
        return false;
    }
    if (isTold) {
        deliveringId = id_;
        workers_.BeginBlocking();
        gate_->Call(id_, step == Step::REQUEST ? &request : nullptr);
        workers_.EndBlocking();
        deliveringId = 0;
    }
    const std::lock_guard guard(lock_);
    isDelivering_ = false;
    lastRequest_ = std::chrono::steady_clock::now();
    ArmLocked();
    return step == Step::ENDED;
}

MuxaChannel::Step MuxaChannel::ReadLocked(std::span<uint8_t> buffer, MuxaRequest& request) {
    MuxaHeader header;
    size_t length = 0;
    switch (ReceiveMuxaPacket(socket_.Get(), buffer, header, length)) {
        case ReceiveResult::AGAIN:
            return Step::NOTHING;
        case ReceiveResult::ENDED:
            DisconnectLocked();
            return Step::ENDED;
        case ReceiveResult::PACKET:
            break;
    }
    const auto body = buffer.subspan(MUXA_HEADER_SIZE, length);
    if (header.kind == MuxaKind::RESPONSE) {
        CompleteLocked(header.sequence, body);
        return Step::NOTHING;
    }
    request.data = body.data();
    request.length = static_cast<uint32_t>(length);
    request.wantsResponse = header.kind == MuxaKind::CALL;
    request.sequence = header.sequence;
    request.peerPid = credentials_.pid;
    request.peerUid = credentials_.uid;
    request.peerGid = credentials_.gid;
    return Step::REQUEST;
}

int32_t MuxaChannel::Send(const MuxaHeader& header, std::span<const uint8_t> body) {
    const std::lock_guard guard(lock_);
    return SendLocked(header, body);
}

int32_t MuxaChannel::SendLocked(const MuxaHeader& header, std::span<const uint8_t> body) {
    if (isShut_) {
        return -EBADF;
    }
    if (queue_.empty() && TrySendLocked(header, body)) {
        return 0;
    }
    if (!CanQueueLocked(header.kind)) {
        return -EPIPE;
    }
    if (IsFullLocked(header.kind)) {
        return -EAGAIN;
    }
    queue_.push_back({header, {body.begin(), body.end()}});
    ArmLocked();
    return 0;
}

// A response is for the peer that asked. Other records of a pipe may wait for the next peer.
bool MuxaChannel::CanQueueLocked(MuxaKind kind) const {
    const bool hasPeer = socket_.IsValid() && !isBroken_;
    return hasPeer || (isPipe_ && kind != MuxaKind::RESPONSE);
}

bool MuxaChannel::IsFullLocked(MuxaKind kind) const {
    if (isPipe_ || kind != MuxaKind::RESPONSE) {
        return queue_.size() >= MAX_QUEUED;
    }
    const auto isAnswer = [](const Packet& packet) {
        return packet.header.kind == MuxaKind::RESPONSE;
    };
    return std::count_if(queue_.begin(), queue_.end(), isAnswer) >= MAX_ANSWERS;
}

bool MuxaChannel::TrySendLocked(const MuxaHeader& header, std::span<const uint8_t> body) {
    if (!socket_.IsValid() || isBroken_) {
        return false;
    }
    const SendResult result = SendMuxaPacket(socket_.Get(), header, body);
    if (result == SendResult::BROKEN) {
        // The reading side then comes to the end by itself, after what the peer had sent before.
        isBroken_ = true;
        shutdown(socket_.Get(), SHUT_RDWR);
    }
    return result == SendResult::SENT;
}

void MuxaChannel::FlushLocked() {
    while (!queue_.empty() && TrySendLocked(queue_.front().header, queue_.front().body)) {
        queue_.pop_front();
    }
}

void MuxaChannel::ArmLocked() {
    const uint32_t input = isDelivering_ ? 0U : uint32_t{EPOLLIN};
    const uint32_t output = queue_.empty() || isBroken_ ? 0U : uint32_t{EPOLLOUT};
    // Not with an empty set: a hang-up would be reported even so, again and again.
    if (socket_.IsValid() && (input | output) != 0) {
        workers_.Rearm(socket_.Get(), input | output, Token());
    }
}

void MuxaChannel::DisconnectLocked() {
    workers_.Forget(socket_.Get());
    // A child between fork and exec still has the socket; the peer must see the end all the same.
    shutdown(socket_.Get(), SHUT_RDWR);
    socket_.Reset();
    FailCallsLocked(-EPIPE);
    std::erase_if(queue_,
                  [](const Packet& packet) { return packet.header.kind != MuxaKind::REQUEST; });
}

void MuxaChannel::Shut() {
    const std::lock_guard guard(lock_);
    ShutLocked();
}

int32_t MuxaChannel::ShutIfIdle() {
    const std::lock_guard guard(lock_);
    if (isShut_) {
        return -EBADF;
    }
    isClosing_ = true;
    if (isDelivering_) {
        return -EBUSY;
    }
    ShutLocked();
    return 0;
}

MuxaChannel::Deadline MuxaChannel::EndIfSilent(Deadline now) {
    const std::lock_guard guard(lock_);
    if (isDelivering_ || !socket_.IsValid()) {
        return now + MAX_SILENCE;
    }
    if (now < lastRequest_ + MAX_SILENCE) {
        return lastRequest_ + MAX_SILENCE;
    }
    // The reading side then comes to the end by itself.
    isBroken_ = true;
    shutdown(socket_.Get(), SHUT_RDWR);
    return now + MAX_SILENCE;
}

void MuxaChannel::ShutLocked() {
    isShut_ = true;
    FailCallsLocked(-EBADF);
    queue_.clear();
    if (socket_.IsValid()) {
        DisconnectLocked();
    }
}

int32_t MuxaChannel::Call(std::span<const uint8_t> body, MuxaResponse& response,
                          std::optional<Deadline> deadline) {
    if (deliveringId == id_) {
        return -EDEADLK;  // the response is read only after the callback has returned
    }
    std::unique_lock guard(lock_);
    const uint64_t sequence = ++lastSequence_;
    const int32_t sent = SendLocked({MuxaKind::CALL, sequence}, body);
    if (sent < 0) {
        return sent;
    }
    PendingCall call{.response = response, .done = {}};
    calls_.emplace(sequence, &call);
    const bool isOnWorker = deliveringId != 0;
    if (isOnWorker) {
        workers_.BeginWaiting();
    }
    const auto isDone = [&call] { return call.isDone; };
    if (!deadline) {
        call.done.wait(guard, isDone);
    } else if (!call.done.wait_until(guard, *deadline, isDone)) {
        WithdrawLocked(sequence);
        call.result = -ETIMEDOUT;
    }
    if (isOnWorker) {
        workers_.EndWaiting();
    }
    return call.result;
}

void MuxaChannel::CompleteLocked(uint64_t sequence, std::span<const uint8_t> body) {
    const auto found = calls_.find(sequence);
    if (found == calls_.end()) {
        return;  // nobody asked, or the caller has given up
    }
    PendingCall& call = *found->second;
    calls_.erase(found);
    call.response.data.assign(body.begin(), body.end());
    call.response.sequence = sequence;
    call.isDone = true;
    call.done.notify_one();
}

void MuxaChannel::FailCallsLocked(int32_t result) {
    for (const auto& [sequence, call] : calls_) {
        call->result = result;
        call->isDone = true;
        call->done.notify_one();
    }
    calls_.clear();
}

void MuxaChannel::WithdrawLocked(uint64_t sequence) {
    calls_.erase(sequence);
    std::erase_if(queue_, [sequence](const Packet& packet) {
        return packet.header.kind == MuxaKind::CALL && packet.header.sequence == sequence;
    });
}

}  // namespace PlatformHost
