// The connections of the heartbeat library: the socket, the limits on connections, and the bounded
// reading of beats. Used by heartbeat.cpp in rounds on the workers.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/host/timer_fd.h"
#include "platform/host/unix_socket.h"

namespace PlatformHost {

// Not thread-safe but for SetTimer.
class HeartbeatPeers {
public:
    using Clock = std::chrono::steady_clock;
    // Called for each packet; returns false when the process may not send that name.
    using BeatHandler = std::function<bool(pid_t pid, const std::string& name)>;

    // Opens the socket. Returns 0 or a negative errno.
    int32_t Open();
    // Closes the socket and all connections.
    void Close();

    // A descriptor that is readable while a connection, a packet or the timer waits for a round.
    int Fd() const { return epoll_.Get(); }
    // Makes Fd() readable at `when`, until the next call.
    void SetTimer(Clock::time_point when) const { timer_.Set(when); }

    // Accepts connections and reads packets, a bounded number of each connection. A connection is
    // read from the first round in which its process is in `registered`.
    void Round(const std::set<pid_t>& registered, const BeatHandler& handler);

    // Closes the connections of processes that have not been registered for more than 3 s.
    void DropUnregistered(const std::set<pid_t>& registered);

    bool IsEmpty() const { return peers_.empty(); }

private:
    struct Peer : AcceptedPeer {
        bool isRead = false;
        Clock::time_point lastRegistered;  // at first, the time of the connection
    };
    using Peers = std::map<int, Peer>;  // by descriptor

    void Accept(const std::set<pid_t>& registered);
    bool HasRoomFor(const ucred& credentials, const std::set<pid_t>& registered) const;
    bool Watch(int operation, int fd, uint32_t events) const;
    Peers::iterator Drop(Peers::iterator peer);
    static bool Serve(const Peer& peer, const std::set<pid_t>& registered,
                      const BeatHandler& handler);
    static bool TakeBeats(const Peer& peer, const BeatHandler& handler);

    BoundSocket listener_;
    TimerFd timer_;
    UniqueFd epoll_;  // the listener, the timer and all connections
    Peers peers_;
};

}  // namespace PlatformHost
