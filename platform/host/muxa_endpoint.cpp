#include "platform/host/muxa_endpoint.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <new>
#include <thread>
#include <utility>

#include "wire/peer_process.h"

namespace PlatformHost {

namespace {

constexpr mode_t PIPE_MODE = 0660;
// Any process may register with a server; its callback is told who it is.
constexpr mode_t SERVER_MODE = 0666;
constexpr int BACKLOG = 64;
// Accepted in one go, and the pause after it: a flood of connections costs that much and no more.
constexpr int MAX_ACCEPTED = 16;
constexpr std::chrono::milliseconds ROUND_PAUSE{10};
constexpr size_t MAX_WAITING = 4;
constexpr std::ptrdiff_t MAX_PEERS_OF_USER = 32;

}  // namespace

int32_t MuxaTable::NewId() {
    const std::lock_guard guard(lock_);
    do {
        lastId_ = lastId_ == std::numeric_limits<int32_t>::max() ? 1 : lastId_ + 1;
    } while (entries_.count(lastId_) != 0);
    return lastId_;
}

void MuxaTable::Add(int32_t id, MuxaEntry entry) {
    const std::lock_guard guard(lock_);
    entries_[id] = std::move(entry);
}

MuxaEntry MuxaTable::Find(int32_t id) {
    const std::lock_guard guard(lock_);
    const auto found = entries_.find(id);
    return found == entries_.end() ? MuxaEntry{} : found->second;
}

void MuxaTable::Remove(int32_t id) {
    MuxaEntry removed;  // destroyed after the lock is released
    const std::lock_guard guard(lock_);
    const auto found = entries_.find(id);
    if (found != entries_.end()) {
        removed = std::move(found->second);
        entries_.erase(found);
    }
}

bool MuxaTable::Reserve(const std::string& path) {
    const std::lock_guard guard(lock_);
    return names_.insert(path).second;
}

void MuxaTable::Release(const std::string& path) {
    const std::lock_guard guard(lock_);
    names_.erase(path);
}

MuxaEndpoint::MuxaEndpoint(MuxaEndpointSettings settings, MuxaTable& table, MuxaWorkers& workers)
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
    const std::lock_guard guard(lock_);
    const int32_t result = ListenLocked();
    if (result < 0) {
        table_.Remove(id_);
        listener_.Close();
        table_.Release(settings_.path);
        return result;
    }
    return id_;
}

int32_t MuxaEndpoint::ListenLocked() {
    const mode_t mode = settings_.isPipe ? PIPE_MODE : SERVER_MODE;
    const int32_t bound = listener_.Bind(SOCK_SEQPACKET, settings_.path, mode,
                                         settings_.gid.value_or(static_cast<gid_t>(-1)));
    if (bound < 0) {
        return bound;
    }
    if (listen(listener_.Fd(), BACKLOG) != 0) {
        return -errno;
    }
    const auto id = static_cast<uint64_t>(id_);
    if (!settings_.isPipe) {
        timer_ = UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
        if (!timer_.IsValid() || !workers_.Watch(timer_.Get(), EPOLLIN, TIMER_TOKEN | id)) {
            return -ENOMEM;
        }
    }
    table_.Add(id_, {shared_from_this(), pipe_});
    return workers_.Watch(listener_.Fd(), EPOLLIN, LISTENER_TOKEN | id) ? 0 : -ENOMEM;
}

void MuxaEndpoint::OnConnection() {
    for (int i = 0; i < MAX_ACCEPTED; ++i) {
        const std::lock_guard guard(lock_);
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
    // Somebody is, or may be, still waiting; without a pause the worker would spin.
    workers_.BeginBlocking();
    std::this_thread::sleep_for(ROUND_PAUSE);
    workers_.EndBlocking();
    const std::lock_guard guard(lock_);
    isAccepting_ = false;
    ArmLocked();
}

AcceptResult MuxaEndpoint::AcceptLocked() {
    const bool isFull = !settings_.isPipe && peers_.size() >= settings_.maxPeers;
    if (isClosed_ || isFull || gate_->IsClosing()) {
        return AcceptResult::NONE;
    }
    AcceptedPeer peer;
    const AcceptResult result = AcceptMuxaPeer(listener_.Fd(), peer);
    if (result != AcceptResult::ACCEPTED) {
        return result;
    }
    try {
        const bool isIn = IsWelcomeLocked(peer.credentials) && AdmitLocked(std::move(peer));
        return isIn ? AcceptResult::ACCEPTED : AcceptResult::REFUSED;
    } catch (const std::bad_alloc&) {
        return AcceptResult::REFUSED;
    }
}

bool MuxaEndpoint::IsWelcomeLocked(const ucred& credentials) const {
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
    // A quarter of the places is root's: users together cannot take them all.
    const auto places = static_cast<std::ptrdiff_t>(settings_.maxPeers - settings_.maxPeers / 4);
    return std::count_if(peers_.begin(), peers_.end(), isSameUser) < MAX_PEERS_OF_USER &&
           std::count_if(peers_.begin(), peers_.end(), isOther) < places;
}

bool MuxaEndpoint::AdmitLocked(AcceptedPeer peer) {
    return settings_.isPipe && !peers_.empty() ? QueueLocked(std::move(peer))
                                               : SeatLocked(std::move(peer));
}

bool MuxaEndpoint::QueueLocked(AcceptedPeer peer) {
    if (waiting_.size() >= MAX_WAITING) {
        std::erase_if(waiting_, HasNothingToSay);
    }
    if (waiting_.size() >= MAX_WAITING) {
        return false;
    }
    waiting_.push_back(std::move(peer));
    return true;
}

bool MuxaEndpoint::SeatLocked(AcceptedPeer peer) {
    auto channel = pipe_;
    if (!settings_.isPipe) {
        channel = std::make_shared<MuxaChannel>(table_.NewId(), false, gate_, workers_);
        // Before its first event, which is looked up there.
        table_.Add(channel->Id(), {shared_from_this(), channel});
    }
    peers_.emplace(channel->Id(), Peer{channel, peer.credentials.uid});
    if (channel->Attach(std::move(peer))) {
        if (timer_.IsValid() && !isTimerSet_) {
            SetTimerLocked(MuxaChannel::MAX_SILENCE);
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
    const std::lock_guard guard(lock_);
    isTimerSet_ = false;
    if (isClosed_ || peers_.empty()) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    auto next = MuxaChannel::Deadline::max();
    for (const auto& [id, peer] : peers_) {
        next = std::min(next, peer.channel->EndIfSilent(now));
    }
    SetTimerLocked(next - now);
}

void MuxaEndpoint::SetTimerLocked(std::chrono::steady_clock::duration delay) {
    using std::chrono::nanoseconds;
    using std::chrono::seconds;
    const auto whole = std::chrono::duration_cast<seconds>(delay);
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(whole.count());
    // Never 0 in all, which would stop it.
    when.it_value.tv_nsec =
        static_cast<long>(std::max(nanoseconds(delay - whole), nanoseconds(1)).count());
    timerfd_settime(timer_.Get(), 0, &when, nullptr);
    isTimerSet_ = true;
    workers_.Rearm(timer_.Get(), EPOLLIN, TIMER_TOKEN | static_cast<uint64_t>(id_));
}

void MuxaEndpoint::ArmLocked() {
    const bool isFull = !settings_.isPipe && peers_.size() >= settings_.maxPeers;
    if (!isClosed_ && !isFull && !isAccepting_) {
        workers_.Rearm(listener_.Fd(), EPOLLIN, LISTENER_TOKEN | static_cast<uint64_t>(id_));
    }
}

void MuxaEndpoint::PeerEnded(int32_t id) {
    if (!settings_.isPipe) {
        table_.Remove(id);
    }
    const std::lock_guard guard(lock_);
    peers_.erase(id);
    while (!isClosed_ && !waiting_.empty() && peers_.empty()) {
        AcceptedPeer next = std::move(waiting_.front());
        waiting_.pop_front();
        SeatLocked(std::move(next));
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
        const std::lock_guard guard(lock_);
        isClosed_ = true;
        workers_.Forget(listener_.Fd());
        listener_.Close();
        if (timer_.IsValid()) {
            workers_.Forget(timer_.Get());
            timer_.Reset();
        }
        waiting_.clear();
        peers.swap(peers_);
    }
    if (pipe_ != nullptr) {
        pipe_->Shut();  // it has callers and records even without a peer
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
