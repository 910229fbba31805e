// The connections over which the heartbeat library's beats come: its socket, who may stay
// connected, and how much is read of whom. Used by the library's one thread.
#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/host/unix_socket.h"

namespace PlatformHost {

// Not thread-safe but for Wake.
class HeartbeatPeers {
public:
    using Clock = std::chrono::steady_clock;
    // Called for each packet; false when the process may not send that name.
    using BeatHandler = std::function<bool(pid_t pid, const std::string& name)>;

    // Opens the socket. Returns 0 or a negative errno.
    int32_t Open();

    // Waits until something is to be done, Wake is called or `timeout` milliseconds are over; -1:
    // for ever. Keeps rounds apart, so that a flood costs a fixed share of the processor.
    void Wait(int timeout);
    void Wake();

    // Accepts and reads what has come, a bounded part of each connection. A connection is read once
    // its process is in `registered`.
    void Round(const std::set<pid_t>& registered, const BeatHandler& handler);

    // Closes the connections of processes that have not been registered for longer than they may.
    void DropUnregistered(const std::set<pid_t>& registered);

    bool IsEmpty() const { return peers_.empty(); }

private:
    struct Peer {
        UniqueFd socket;
        ucred credentials{};
        bool isRead = false;
        Clock::time_point lastRegistered;  // at first, when it connected
    };
    using Peers = std::map<int, Peer>;  // by descriptor

    void Accept(const std::set<pid_t>& registered);
    bool HasRoomFor(const ucred& credentials, const std::set<pid_t>& registered) const;
    void Admit(UniqueFd socket, const ucred& credentials);
    void ReadRegistered(const std::set<pid_t>& registered);
    bool Watch(int operation, int fd, uint32_t events);
    Peers::iterator Drop(Peers::iterator peer);
    static bool Serve(const Peer& peer, const std::set<pid_t>& registered,
                      const BeatHandler& handler);
    static bool TakeBeats(const Peer& peer, const BeatHandler& handler);

    BoundSocket listener_;
    UniqueFd wake_;
    UniqueFd epoll_;
    Peers peers_;
    std::vector<epoll_event> events_;
};

}  // namespace PlatformHost
