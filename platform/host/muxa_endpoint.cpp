#include "platform/host/muxa_endpoint.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <thread>
#include <utility>

#include "wire/peer_process.h"

namespace PlatformHost {

namespace {

using Wire::LockGuard;

constexpr mode_t PIPE_MODE = 0660;
// Any process may connect to a server; the callback gets the credentials of the peer.
constexpr mode_t SERVER_MODE = 0666;
constexpr int BACKLOG = 64;
// Peers accepted in one round, and the pause after it: they limit the processor time that a flood
// of connections can take.
constexpr int MAX_ACCEPTED = 16;
constexpr std::chrono::milliseconds ROUND_PAUSE{10};
constexpr size_t MAX_WAITING = 4;
constexpr std::ptrdiff_t MAX_PEERS_OF_USER = 32;

// True when the peer has ended the connection and has left no packet to be read.
bool HasEndedSilently(const AcceptedPeer& peer) {
    uint8_t byte = 0;
    return recv(peer.socket.Get(), &byte, sizeof(byte), MSG_PEEK | MSG_DONTWAIT) == 0;
}

}  // namespace

MuxaEndpoint::MuxaEndpoint(MuxaEndpointSettings settings, MuxaTable& table, EventWorkers& workers)
    : settings_(std::move(settings)),
      table_(table),
      workers_(workers),
      id_(table.NewId()),
      gate_(std::make_shared<MuxaGate>(settings_.name, settings_.callback)),
      pipe_(settings_.isPipe ? std::make_shared<MuxaChannel>(id_, true, gate_, workers) : nullptr) {
}

int32_t MuxaEndpoint::Open() {
    if (!table_.Reserve(settings_.path)) {
        return -EADDRINUSE;
    }
    const LockGuard guard(lock_);
    const int32_t result = ListenLocked();
    if (result < 0) {
        table_.Remove(id_);
        StopListeningLocked();
        table_.Release(settings_.path);
        return result;
    }
    return id_;
}

int32_t MuxaEndpoint::ListenLocked() {
    const mode_t mode = settings_.isPipe ? PIPE_MODE : SERVER_MODE;
    int32_t result = listener_.Bind(settings_.path, mode, settings_.gid);
    result = result == 0 ? listener_.Listen(BACKLOG) : result;
    if (result < 0) {
        return result;
    }
    const auto self = shared_from_this();
    if (!settings_.isPipe) {
        if (!timer_.Create()) {
            return -ENOMEM;
        }
        timerWatch_ = workers_.Watch(timer_.Fd(), EPOLLIN, [self](auto) { self->OnTimer(); });
        if (timerWatch_ == 0) {
            return -ENOMEM;
        }
    }
    table_.Add(id_, {self, pipe_});
    listenerWatch_ =
        workers_.Watch(listener_.Fd(), EPOLLIN, [self](auto) { self->OnConnection(); });
    return listenerWatch_ != 0 ? 0 : -ENOMEM;
}

void MuxaEndpoint::StopListeningLocked() {
    for (uint64_t* const watch : {&listenerWatch_, &timerWatch_}) {
        if (*watch != 0) {
            workers_.Forget(std::exchange(*watch, 0));
        }
    }
    listener_.Close();
    timer_.Close();
}

void MuxaEndpoint::OnConnection() {
    for (int i = 0; i < MAX_ACCEPTED; ++i) {
        const LockGuard guard(lock_);
        const AcceptResult result = AcceptLocked();
        isAccepting_ = result != AcceptResult::NONE;
        if (!isAccepting_) {
            ArmLocked();
            return;
        }
        if (result == AcceptResult::EXHAUSTED) {
            break;
        }
    }
    // A peer is, or may be, still waiting; without a pause the worker would spin.
    workers_.BeginBlocking();
    std::this_thread::sleep_for(ROUND_PAUSE);
    workers_.EndBlocking();
    const LockGuard guard(lock_);
    isAccepting_ = false;
    ArmLocked();
}

AcceptResult MuxaEndpoint::AcceptLocked() {
    if (isClosed_ || IsFullLocked() || gate_->IsClosing()) {
        return AcceptResult::NONE;
    }
    AcceptedPeer peer;
    const AcceptResult result = AcceptPeer(listener_.Fd(), peer);
    if (result != AcceptResult::ACCEPTED) {
        return result;
    }
    try {
        const bool mustWait = settings_.isPipe && !peers_.empty();
        const bool isKept =
            IsAllowedLocked(peer.credentials) &&
            (mustWait ? QueueLocked(std::move(peer)) : ConnectLocked(std::move(peer)));
        return isKept ? AcceptResult::ACCEPTED : AcceptResult::REFUSED;
    } catch (const std::bad_alloc&) {
        return AcceptResult::REFUSED;
    }
}

bool MuxaEndpoint::IsAllowedLocked(const ucred& credentials) const {
    if (credentials.uid == 0) {
        return true;
    }
    if (settings_.isPipe) {
        return Wire::IsSameOrDescendant(credentials.pid, settings_.pid);
    }
    const auto isSameUser = [&credentials](const auto& entry) {
        return entry.second.uid == credentials.uid;
    };
    const auto isOther = [](const auto& entry) { return entry.second.uid != 0; };
    // A quarter of the places is kept for root: the other users together cannot take all places.
    const auto places = static_cast<std::ptrdiff_t>(settings_.maxPeers - settings_.maxPeers / 4);
    return std::count_if(peers_.begin(), peers_.end(), isSameUser) < MAX_PEERS_OF_USER &&
           std::count_if(peers_.begin(), peers_.end(), isOther) < places;
}

bool MuxaEndpoint::QueueLocked(AcceptedPeer peer) {
    if (waiting_.size() >= MAX_WAITING) {
        std::erase_if(waiting_, HasEndedSilently);
    }
    if (waiting_.size() >= MAX_WAITING) {
        return false;
    }
    waiting_.push_back(std::move(peer));
    return true;
}

bool MuxaEndpoint::ConnectLocked(AcceptedPeer peer) {
    const auto self = shared_from_this();
    auto channel = pipe_;
    if (!settings_.isPipe) {
        channel = std::make_shared<MuxaChannel>(table_.NewId(), false, gate_, workers_);
        // Before the first event: its callback may send to the peer.
        table_.Add(channel->Id(), {self, channel});
    }
    peers_.emplace(channel->Id(), Peer{channel, peer.credentials.uid});
    const auto onEvent = [self, channel](std::span<uint8_t> buffer) {
        if (channel->OnReady(buffer)) {
            self->PeerEnded(channel->Id());
        }
    };
    if (channel->Attach(std::move(peer), onEvent)) {
        if (timer_.IsValid() && !isTimerSet_) {
            SetTimerLocked(std::chrono::steady_clock::now() + MuxaChannel::MAX_SILENCE);
        }
        return true;
    }
    peers_.erase(channel->Id());
    if (!settings_.isPipe) {
        table_.Remove(channel->Id());
    }
    return false;
}

void MuxaEndpoint::OnTimer() {
    const LockGuard guard(lock_);
    isTimerSet_ = false;
    if (isClosed_ || peers_.empty()) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    auto next = MuxaChannel::Deadline::max();
    for (const auto& [id, peer] : peers_) {
        next = std::min(next, peer.channel->EndIfSilent(now));
    }
    SetTimerLocked(next);
}

void MuxaEndpoint::SetTimerLocked(TimerFd::Time when) {
    timer_.Set(when);
    isTimerSet_ = true;
    workers_.Rearm(timerWatch_, EPOLLIN);
}

bool MuxaEndpoint::IsFullLocked() const {
    return !settings_.isPipe && peers_.size() >= settings_.maxPeers;
}

void MuxaEndpoint::ArmLocked() {
    if (!isClosed_ && !IsFullLocked() && !isAccepting_) {
        workers_.Rearm(listenerWatch_, EPOLLIN);
    }
}

void MuxaEndpoint::PeerEnded(int32_t id) {
    if (!settings_.isPipe) {
        table_.Remove(id);
    }
    const LockGuard guard(lock_);
    peers_.erase(id);
    while (!isClosed_ && !waiting_.empty() && peers_.empty()) {
        AcceptedPeer next = std::move(waiting_.front());
        waiting_.pop_front();
        ConnectLocked(std::move(next));
    }
    ArmLocked();
}

int32_t MuxaEndpoint::ClosePeer(MuxaChannel& channel) {
    const int32_t result = channel.ShutIfIdle();
    if (result >= 0) {
        PeerEnded(channel.Id());
    }
    return result;
}

int32_t MuxaEndpoint::Close() {
    const int32_t result = gate_->Close();
    if (result < 0) {
        return result;
    }
    std::map<int32_t, Peer> peers;
    {
        const LockGuard guard(lock_);
        isClosed_ = true;
        StopListeningLocked();
        waiting_.clear();
        peers.swap(peers_);
    }
    if (pipe_ != nullptr) {
        pipe_->Shut();  // even without a peer: calls and records may wait in it
    }
    for (const auto& [id, peer] : peers) {
        peer.channel->Shut();
        table_.Remove(id);
    }
    table_.Remove(id_);
    table_.Release(settings_.path);
    return 0;
}

}  // namespace PlatformHost
