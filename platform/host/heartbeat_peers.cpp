#include "platform/host/heartbeat_peers.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <utility>

namespace PlatformHost {

namespace {

constexpr const char* SOCKET_PATH = "/run/heartbeat.sock";
constexpr mode_t SOCKET_MODE = 0666;
constexpr int BACKLOG = 64;
constexpr size_t MAX_NAME = 127;
// Between two rounds, in milliseconds.
constexpr int ROUND_PAUSE = 10;
constexpr int MAX_ACCEPTED = 64;  // in a round
constexpr int MAX_PACKETS = 16;   // of one connection in a round
constexpr std::chrono::seconds REGISTRATION_LIMIT{3};
// Connections: of a process that is registered, of those that are not in all and of one user but
// root.
constexpr int MAX_OF_PROCESS = 4;
constexpr int MAX_UNREGISTERED = 64;
constexpr int MAX_UNREGISTERED_OF_USER = 8;

}  // namespace

int32_t HeartbeatPeers::Open() {
    wake_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_ = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    if (!wake_.IsValid() || !epoll_.IsValid()) {
        return -errno;
    }
    const int32_t bound =
        listener_.Bind(SOCK_SEQPACKET, SOCKET_PATH, SOCKET_MODE, static_cast<gid_t>(-1));
    if (bound < 0) {
        return bound;
    }
    const bool isOpen = listen(listener_.Fd(), BACKLOG) == 0 &&
                        Watch(EPOLL_CTL_ADD, wake_.Get(), EPOLLIN) &&
                        Watch(EPOLL_CTL_ADD, listener_.Fd(), EPOLLIN);
    return isOpen ? 0 : -errno;
}

void HeartbeatPeers::Wake() {
    eventfd_write(wake_.Get(), 1);
}

void HeartbeatPeers::Wait(int timeout) {
    pollfd wake{wake_.Get(), POLLIN, 0};
    poll(&wake, 1, ROUND_PAUSE);
    // Room for all, so that after a long callback nobody's beats are left for a later round.
    events_.resize(peers_.size() + 2);
    const int count =
        epoll_wait(epoll_.Get(), events_.data(), static_cast<int>(events_.size()), timeout);
    events_.resize(static_cast<size_t>(std::max(count, 0)));
}

void HeartbeatPeers::Round(const std::set<pid_t>& registered, const BeatHandler& handler) {
    bool isAsked = false;
    for (const epoll_event& event : events_) {
        const int fd = event.data.fd;
        const auto found = peers_.find(fd);
        if (fd == wake_.Get()) {
            eventfd_t count = 0;
            eventfd_read(fd, &count);
        } else if (fd == listener_.Fd()) {
            isAsked = true;
        } else if (found != peers_.end() && !Serve(found->second, registered, handler)) {
            Drop(found);
        }
    }
    // After the ends of others: a process that connects anew finds its place free. Not in the midst
    // of the events, as a new connection may get the number of an ended one.
    if (isAsked) {
        Accept(registered);
    }
    ReadRegistered(registered);
}

bool HeartbeatPeers::Serve(const Peer& peer, const std::set<pid_t>& registered,
                           const BeatHandler& handler) {
    // Of a connection that is not read, the one thing that is told is the end.
    return (peer.isRead || registered.contains(peer.credentials.pid)) && TakeBeats(peer, handler);
}

HeartbeatPeers::Peers::iterator HeartbeatPeers::Drop(Peers::iterator peer) {
    // A child between fork and exec still has the socket; the peer must see the end all the same.
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, peer->first, nullptr);
    shutdown(peer->first, SHUT_RDWR);
    return peers_.erase(peer);
}

// False when the connection is over: it has ended, or holds what this process may not send.
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
        UniqueFd socket(accept4(listener_.Fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket.IsValid()) {
            return;
        }
        ucred credentials{};
        socklen_t length = sizeof(credentials);
        if (getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 &&
            HasRoomFor(credentials, registered)) {
            Admit(std::move(socket), credentials);
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

void HeartbeatPeers::Admit(UniqueFd socket, const ucred& credentials) {
    const int fd = socket.Get();
    if (Watch(EPOLL_CTL_ADD, fd, 0)) {
        peers_[fd] = Peer{std::move(socket), credentials, false, Clock::now()};
    }
}

void HeartbeatPeers::ReadRegistered(const std::set<pid_t>& registered) {
    for (auto& [fd, peer] : peers_) {
        if (!peer.isRead && registered.contains(peer.credentials.pid)) {
            peer.isRead = Watch(EPOLL_CTL_MOD, fd, EPOLLIN);
        }
    }
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

bool HeartbeatPeers::Watch(int operation, int fd, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(epoll_.Get(), operation, fd, &event) == 0;
}

}  // namespace PlatformHost
