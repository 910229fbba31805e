#include "platform/host/muxa_channel.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "wire/packet_io.h"

namespace PlatformHost {

namespace {

using Wire::LockGuard;
using Wire::PacketHeader;
using Wire::PacketKind;

constexpr size_t MAX_QUEUED = 256;
// The number of unsent responses that are queued for one peer of a server.
constexpr std::ptrdiff_t MAX_ANSWERS = 16;

// The channel whose callback runs on this thread, 0 outside of callbacks.
thread_local int32_t deliveringId = 0;

}  // namespace

bool MuxaChannel::Attach(AcceptedPeer peer, EventWorkers::Handler onEvent) {
    const LockGuard guard(lock_);
    if (isShut_) {
        return false;
    }
    watch_ = workers_.Watch(peer.socket.Get(), EPOLLIN, std::move(onEvent));
    if (watch_ == 0) {
        return false;
    }
    peer_ = std::move(peer);
    isBroken_ = false;
    lastRequest_ = std::chrono::steady_clock::now();
    FlushLocked();
    ArmLocked();
    return true;
}

bool MuxaChannel::OnReady(std::span<uint8_t> buffer) {
    MuxaRequest request;
    Step step = Step::NOTHING;
    bool isCalled = false;
    {
        const LockGuard guard(lock_);
        if (!peer_.socket.IsValid()) {
            return false;
        }
        FlushLocked();
        step = isDelivering_ ? Step::NOTHING : ReadLocked(buffer, request);
        isDelivering_ = isDelivering_ || step != Step::NOTHING;
        isCalled = !isClosing_;
        ArmLocked();
    }
    if (step == Step::NOTHING) {
        return false;
    }
    if (isCalled) {
        workers_.BeginBlocking();
        deliveringId = id_;
        gate_->Call(id_, step == Step::REQUEST ? &request : nullptr);
        deliveringId = 0;
        workers_.EndBlocking();
    }
    const LockGuard guard(lock_);
    isDelivering_ = false;
    lastRequest_ = std::chrono::steady_clock::now();
    ArmLocked();
    return step == Step::ENDED;
}

MuxaChannel::Step MuxaChannel::ReadLocked(std::span<uint8_t> buffer, MuxaRequest& request) {
    Wire::Packet packet;
    switch (Wire::ReceivePacket(peer_.socket.Get(), buffer, packet)) {
        case Wire::ReceiveResult::NONE:
            return Step::NOTHING;
        case Wire::ReceiveResult::ENDED:
            DisconnectLocked();
            return Step::ENDED;
        case Wire::ReceiveResult::PACKET:
            break;
    }
    if (packet.header.kind == PacketKind::RESPONSE) {
        CompleteLocked(packet.header.sequence, packet.body);
        return Step::NOTHING;
    }
    request.data = packet.body.data();
    request.length = static_cast<uint32_t>(packet.body.size());
    request.wantsResponse = packet.header.kind == PacketKind::CALL;
    request.sequence = packet.header.sequence;
    request.peerPid = peer_.credentials.pid;
    request.peerUid = peer_.credentials.uid;
    request.peerGid = peer_.credentials.gid;
    return Step::REQUEST;
}

int32_t MuxaChannel::Send(const PacketHeader& header, std::span<const uint8_t> body) {
    const LockGuard guard(lock_);
    return SendLocked(header, body);
}

int32_t MuxaChannel::SendLocked(const PacketHeader& header, std::span<const uint8_t> body) {
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

// A response can only go to the peer that sent the request. Other records of a pipe may wait for
// the next peer.
bool MuxaChannel::CanQueueLocked(PacketKind kind) const {
    const bool hasPeer = peer_.socket.IsValid() && !isBroken_;
    return hasPeer || (isPipe_ && kind != PacketKind::RESPONSE);
}

bool MuxaChannel::IsFullLocked(PacketKind kind) const {
    if (isPipe_ || kind != PacketKind::RESPONSE) {
        return queue_.size() >= MAX_QUEUED;
    }
    const auto isAnswer = [](const Packet& packet) {
        return packet.header.kind == PacketKind::RESPONSE;
    };
    return std::count_if(queue_.begin(), queue_.end(), isAnswer) >= MAX_ANSWERS;
}

bool MuxaChannel::TrySendLocked(const PacketHeader& header, std::span<const uint8_t> body) {
    if (!peer_.socket.IsValid() || isBroken_) {
        return false;
    }
    const Wire::SendResult result = Wire::SendPacket(peer_.socket.Get(), header, body);
    if (result == Wire::SendResult::BROKEN) {
        BreakLocked();
    }
    return result == Wire::SendResult::SENT;
}

void MuxaChannel::FlushLocked() {
    while (!queue_.empty() && TrySendLocked(queue_.front().header, queue_.front().body)) {
        queue_.pop_front();
    }
}

void MuxaChannel::ArmLocked() {
    const uint32_t input = isDelivering_ ? 0U : uint32_t{EPOLLIN};
    const uint32_t output = queue_.empty() || isBroken_ ? 0U : uint32_t{EPOLLOUT};
    // Not with an empty set: epoll would still report a hang-up, again and again.
    if (peer_.socket.IsValid() && (input | output) != 0) {
        workers_.Rearm(watch_, input | output);
    }
}

// Ends the connection for the peer. The socket stays until OnReady has read the packets that the
// peer sent before, and then finds the end.
void MuxaChannel::BreakLocked() {
    isBroken_ = true;
    shutdown(peer_.socket.Get(), SHUT_RDWR);
}

void MuxaChannel::DisconnectLocked() {
    workers_.Forget(watch_);
    // close() alone does not end the connection while a child between fork and exec has a copy of
    // the socket.
    shutdown(peer_.socket.Get(), SHUT_RDWR);
    peer_.socket.Reset();
    FailCallsLocked(-EPIPE);
    std::erase_if(queue_,
                  [](const Packet& packet) { return packet.header.kind != PacketKind::REQUEST; });
}

void MuxaChannel::Shut() {
    const LockGuard guard(lock_);
    ShutLocked();
}

int32_t MuxaChannel::ShutIfIdle() {
    const LockGuard guard(lock_);
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
    const LockGuard guard(lock_);
    if (isDelivering_ || !peer_.socket.IsValid()) {
        return now + MAX_SILENCE;
    }
    if (now < lastRequest_ + MAX_SILENCE) {
        return lastRequest_ + MAX_SILENCE;
    }
    BreakLocked();
    return now + MAX_SILENCE;
}

void MuxaChannel::ShutLocked() {
    isShut_ = true;
    FailCallsLocked(-EBADF);
    queue_.clear();
    if (peer_.socket.IsValid()) {
        DisconnectLocked();
    }
}

int32_t MuxaChannel::Call(std::span<const uint8_t> body, MuxaResponse& response,
                          std::optional<Deadline> deadline) {
    if (deliveringId == id_) {
        return -EDEADLK;  // a response is read only after the callback has returned
    }
    Wire::UniqueLock guard(lock_);
    const uint64_t sequence = ++lastSequence_;
    const int32_t sent = SendLocked({PacketKind::CALL, sequence}, body);
    if (sent < 0) {
        return sent;
    }
    PendingCall call{.response = response, .done = {}};
    calls_.emplace(sequence, &call);
    workers_.BeginWaiting();
    const auto isDone = [&call] { return call.isDone; };
    if (!deadline) {
        call.done.Wait(guard, isDone);
    } else if (!call.done.WaitUntil(guard, *deadline, isDone)) {
        WithdrawLocked(sequence);
        call.result = -ETIMEDOUT;
    }
    workers_.EndWaiting();
    return call.result;
}

void MuxaChannel::CompleteLocked(uint64_t sequence, std::span<const uint8_t> body) {
    const auto found = calls_.find(sequence);
    if (found == calls_.end()) {
        return;  // there was no such call, or its deadline has passed
    }
    PendingCall& call = *found->second;
    calls_.erase(found);
    call.response.data.assign(body.begin(), body.end());
    call.response.sequence = sequence;
    call.isDone = true;
    call.done.NotifyOne();
}

void MuxaChannel::FailCallsLocked(int32_t result) {
    for (const auto& [sequence, call] : calls_) {
        call->result = result;
        call->isDone = true;
        call->done.NotifyOne();
    }
    calls_.clear();
}

void MuxaChannel::WithdrawLocked(uint64_t sequence) {
    calls_.erase(sequence);
    std::erase_if(queue_, [sequence](const Packet& packet) {
        return packet.header.kind == PacketKind::CALL && packet.header.sequence == sequence;
    });
}

}  // namespace PlatformHost
