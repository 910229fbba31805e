#include "platform/host/heartbeat_peers.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <utility>

#include "wire/socket_paths.h"

namespace PlatformHost {

namespace {

constexpr mode_t SOCKET_MODE = 0666;
constexpr int BACKLOG = 64;
constexpr size_t MAX_NAME = 127;
constexpr int MAX_ACCEPTED = 64;  // in a round
constexpr int MAX_PACKETS = 16;   // of one connection in a round
constexpr std::chrono::seconds REGISTRATION_LIMIT{3};
// Limits on connections: for one registered process, for all processes that are not registered
// together, and for those of one user other than root.
constexpr int MAX_OF_PROCESS = 4;
constexpr int MAX_UNREGISTERED = 64;
constexpr int MAX_UNREGISTERED_OF_USER = 8;

}  // namespace

int32_t HeartbeatPeers::Open() {
    epoll_ = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_.IsValid() || !timer_.Create()) {
        return -errno;
    }
    int32_t result = listener_.Bind(Wire::HEARTBEAT_SOCKET, SOCKET_MODE, BoundSocket::NO_GROUP);
    result = result == 0 ? listener_.Listen(BACKLOG) : result;
    if (result < 0) {
        return result;
    }
    const bool isWatched =
        Watch(EPOLL_CTL_ADD, timer_.Fd(), EPOLLIN) && Watch(EPOLL_CTL_ADD, listener_.Fd(), EPOLLIN);
    return isWatched ? 0 : -errno;
}

void HeartbeatPeers::Close() {
    while (!peers_.empty()) {
        Drop(peers_.begin());
    }
    listener_.Close();
    timer_.Close();
    epoll_.Reset();
}

void HeartbeatPeers::Round(const std::set<pid_t>& registered, const BeatHandler& handler) {
    // Room for all descriptors: after a long callback, no beat may be left for a later round.
    std::vector<epoll_event> events(peers_.size() + 2);
    const int count = epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), 0);
    events.resize(static_cast<size_t>(std::max(count, 0)));
    bool hasConnections = false;
    for (const epoll_event& event : events) {
        const int fd = event.data.fd;
        const auto found = peers_.find(fd);
        hasConnections = hasConnections || fd == listener_.Fd();
        if (found != peers_.end() && !Serve(found->second, registered, handler)) {
            Drop(found);
        }
    }
    // After the loop, because the ended connections make room for new ones, and because a new
    // connection may get the descriptor of an ended one.
    if (hasConnections) {
        Accept(registered);
    }
    for (auto& [fd, peer] : peers_) {
        if (!peer.isRead && registered.contains(peer.credentials.pid)) {
            peer.isRead = Watch(EPOLL_CTL_MOD, fd, EPOLLIN);
        }
    }
}

// Returns false when the connection is to be closed.
bool HeartbeatPeers::Serve(const Peer& peer, const std::set<pid_t>& registered,
                           const BeatHandler& handler) {
    // For a connection that is not read yet, epoll reports nothing but its end.
    return (peer.isRead || registered.contains(peer.credentials.pid)) && TakeBeats(peer, handler);
}

HeartbeatPeers::Peers::iterator HeartbeatPeers::Drop(Peers::iterator peer) {
    // close() alone is not enough while a child between fork and exec has a copy of the socket: the
    // set would go on reporting it, and the peer would not see the end.
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, peer->first, nullptr);
    shutdown(peer->first, SHUT_RDWR);
    return peers_.erase(peer);
}

// Returns false when the connection has ended, or holds a packet that this process may not send.
bool HeartbeatPeers::TakeBeats(const Peer& peer, const BeatHandler& handler) {
    std::array<char, MAX_NAME> name{};
    for (int i = 0; i < MAX_PACKETS; ++i) {
        const ssize_t length =
            recv(peer.socket.Get(), name.data(), name.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (length < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        if (length == 0 || static_cast<size_t>(length) > name.size() ||
            !handler(peer.credentials.pid, {name.data(), static_cast<size_t>(length)})) {
            return false;
        }
    }
    return true;
}

void HeartbeatPeers::Accept(const std::set<pid_t>& registered) {
    for (int i = 0; i < MAX_ACCEPTED; ++i) {
        Peer peer;
        const AcceptResult result = AcceptPeer(listener_.Fd(), peer);
        if (result == AcceptResult::NONE || result == AcceptResult::EXHAUSTED) {
            return;
        }
        const int fd = peer.socket.Get();
        if (result == AcceptResult::ACCEPTED && HasRoomFor(peer.credentials, registered) &&
            Watch(EPOLL_CTL_ADD, fd, 0)) {
            peer.lastRegistered = Clock::now();
            peers_[fd] = std::move(peer);
        }
    }
}

bool HeartbeatPeers::HasRoomFor(const ucred& credentials, const std::set<pid_t>& registered) const {
    int ofProcess = 0;
    int unregistered = 0;
    int ofUser = 0;
    for (const auto& [fd, peer] : peers_) {
        ofProcess += peer.credentials.pid == credentials.pid ? 1 : 0;
        if (!registered.contains(peer.credentials.pid)) {
            ++unregistered;
            ofUser += peer.credentials.uid == credentials.uid ? 1 : 0;
        }
    }
    if (registered.contains(credentials.pid)) {
        return ofProcess < MAX_OF_PROCESS;
    }
    return unregistered < MAX_UNREGISTERED &&
           (credentials.uid == 0 || ofUser < MAX_UNREGISTERED_OF_USER);
}

void HeartbeatPeers::DropUnregistered(const std::set<pid_t>& registered) {
    const auto now = Clock::now();
    for (auto entry = peers_.begin(); entry != peers_.end();) {
        Peer& peer = entry->second;
        if (registered.contains(peer.credentials.pid)) {
            peer.lastRegistered = now;
        }
        const bool isOver = now - peer.lastRegistered >= REGISTRATION_LIMIT;
        entry = isOver ? Drop(entry) : std::next(entry);
    }
}

bool HeartbeatPeers::Watch(int operation, int fd, uint32_t events) const {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(epoll_.Get(), operation, fd, &event) == 0;
}

}  // namespace PlatformHost
