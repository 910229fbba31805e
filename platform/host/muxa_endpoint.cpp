#include "platform/host/muxa_endpoint.h"

#include <sys/epoll.h>

#include <cerrno>
#include <chrono>
#include <limits>
#include <new>
#include <thread>
#include <utility>

namespace PlatformHost {

namespace {

constexpr mode_t PIPE_MODE = 0660;
// Any process may register with a server; its callback is told who it is.
constexpr mode_t SERVER_MODE = 0666;
constexpr int BACKLOG = 64;
constexpr std::chrono::milliseconds EXHAUSTED_PAUSE{50};

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
    const mode_t mode = settings_.isPipe ? PIPE_MODE : SERVER_MODE;
    int32_t result = listener_.Bind(SOCK_SEQPACKET, settings_.path, mode,
                                    settings_.gid.value_or(static_cast<gid_t>(-1)));
    if (result >= 0 && listen(listener_.Fd(), BACKLOG) != 0) {
        result = -errno;
    }
    if (result >= 0) {
        table_.Add(id_, {shared_from_this(), pipe_});
        const uint64_t token = LISTENER_TOKEN | static_cast<uint64_t>(id_);
        if (workers_.Watch(listener_.Fd(), EPOLLIN, token)) {
            return id_;
        }
        result = -ENOMEM;
        table_.Remove(id_);
    }
    listener_.Close();
    table_.Release(settings_.path);
    return result;
}

void MuxaEndpoint::OnConnection() {
    {
        const std::lock_guard guard(lock_);
        if (AcceptLocked() != AcceptResult::EXHAUSTED) {
            ArmLocked();
            return;
        }
    }
    // The connection stays ready to be accepted; without a pause the worker would spin.
    workers_.BeginBlocking();
    std::this_thread::sleep_for(EXHAUSTED_PAUSE);
    workers_.EndBlocking();
    Arm();
}

AcceptResult MuxaEndpoint::AcceptLocked() {
    if (isClosed_ || peers_.size() >= settings_.maxPeers) {
        return AcceptResult::NONE;
    }
    AcceptedPeer peer;
    const AcceptResult result = AcceptMuxaPeer(listener_.Fd(), settings_.gid, peer);
    if (result != AcceptResult::ACCEPTED) {
        return result;
    }
    try {
        return AdmitLocked(std::move(peer)) ? AcceptResult::ACCEPTED : AcceptResult::REFUSED;
    } catch (const std::bad_alloc&) {
        return AcceptResult::REFUSED;
    }
}

bool MuxaEndpoint::AdmitLocked(AcceptedPeer peer) {
    auto channel = pipe_;
    if (!settings_.isPipe) {
        channel = std::make_shared<MuxaChannel>(table_.NewId(), false, gate_, workers_);
        // Before its first event, which is looked up there.
        table_.Add(channel->Id(), {shared_from_this(), channel});
    }
    peers_.emplace(channel->Id(), channel);
    if (channel->Attach(std::move(peer))) {
        return true;
    }
    peers_.erase(channel->Id());
    if (!settings_.isPipe) {
        table_.Remove(channel->Id());
    }
    return false;
}

void MuxaEndpoint::Arm() {
    const std::lock_guard guard(lock_);
    ArmLocked();
}

void MuxaEndpoint::ArmLocked() {
    if (!isClosed_ && peers_.size() < settings_.maxPeers) {
        workers_.Rearm(listener_.Fd(), EPOLLIN, LISTENER_TOKEN | static_cast<uint64_t>(id_));
    }
}

void MuxaEndpoint::PeerEnded(int32_t id) {
    if (!settings_.isPipe) {
        table_.Remove(id);
    }
    const std::lock_guard guard(lock_);
    peers_.erase(id);
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
    std::map<int32_t, std::shared_ptr<MuxaChannel>> peers;
    {
        const std::lock_guard guard(lock_);
        isClosed_ = true;
        workers_.Forget(listener_.Fd());
        listener_.Close();
        peers.swap(peers_);
    }
    if (pipe_ != nullptr) {
        pipe_->Shut();  // it has callers and records even without a peer
    }
    for (const auto& [id, channel] : peers) {
        channel->Shut();
        table_.Remove(id);
    }
    table_.Remove(id_);
    table_.Release(settings_.path);
    return 0;
}

}  // namespace PlatformHost
