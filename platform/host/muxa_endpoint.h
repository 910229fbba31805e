// An endpoint of the messaging library: a pipe or a server, with its listening socket and the peers
// that it has accepted. Called by the functions of platform/messaging.h and on the workers.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "platform/host/event_workers.h"
#include "platform/host/muxa_channel.h"
#include "platform/host/muxa_table.h"
#include "platform/host/timer_fd.h"
#include "platform/host/unix_socket.h"
#include "wire/mutex.h"

namespace PlatformHost {

struct MuxaEndpointSettings {
    bool isPipe = true;
    std::string name;
    std::string path;  // of the socket
    MuxaCallback callback;
    gid_t gid = BoundSocket::NO_GROUP;  // of the socket's file
    pid_t pid = 0;                      // of a pipe: the process of the service
    uint32_t maxPeers = 1;
};

// Thread-safe. Its lock is taken before the locks of its channels, of the table and of the workers.
class MuxaEndpoint : public std::enable_shared_from_this<MuxaEndpoint> {
public:
    MuxaEndpoint(MuxaEndpointSettings settings, MuxaTable& table, EventWorkers& workers);

    // Listens and enters the table. Returns the descriptor or a negative errno.
    int32_t Open();

    // Closes all sockets and leaves the table: 0, -16 while the callback is running, -9 when closed
    // already. No peer is accepted and no callback starts after the first attempt.
    int32_t Close();

    // Closes one peer of a server, with the same results.
    int32_t ClosePeer(MuxaChannel& channel);

    bool HasId(int32_t id) const { return id == id_; }

private:
    struct Peer {
        std::shared_ptr<MuxaChannel> channel;
        uid_t uid = 0;
    };

    // Handles an event of the listening socket on a worker.
    void OnConnection();
    // Handles the timer on a worker: ends silent peers of a server.
    void OnTimer();
    // Called when a peer's connection has ended and its callback has returned.
    void PeerEnded(int32_t id);

    int32_t ListenLocked() PROCMGR_REQUIRES(lock_);
    void StopListeningLocked() PROCMGR_REQUIRES(lock_);
    bool IsFullLocked() const PROCMGR_REQUIRES(lock_);
    AcceptResult AcceptLocked() PROCMGR_REQUIRES(lock_);
    bool IsAllowedLocked(const ucred& credentials) const PROCMGR_REQUIRES(lock_);
    bool QueueLocked(AcceptedPeer peer) PROCMGR_REQUIRES(lock_);
    bool ConnectLocked(AcceptedPeer peer) PROCMGR_REQUIRES(lock_);
    void SetTimerLocked(TimerFd::Time when) PROCMGR_REQUIRES(lock_);
    void ArmLocked() PROCMGR_REQUIRES(lock_);

    const MuxaEndpointSettings settings_;
    MuxaTable& table_;
    EventWorkers& workers_;
    const int32_t id_;
    const std::shared_ptr<MuxaGate> gate_;
    const std::shared_ptr<MuxaChannel> pipe_;  // null for a server

    Wire::Mutex lock_;
    BoundSocket listener_ PROCMGR_GUARDED_BY(lock_);
    uint64_t listenerWatch_ PROCMGR_GUARDED_BY(lock_) = 0;
    bool isClosed_ PROCMGR_GUARDED_BY(lock_) = false;
    // A worker is in OnConnection, and arms the listener at its end.
    bool isAccepting_ PROCMGR_GUARDED_BY(lock_) = false;
    // Connected peers, by id. Peers past a server's limit wait in the listening socket.
    std::map<int32_t, Peer> peers_ PROCMGR_GUARDED_BY(lock_);
    // Of a pipe: accepted peers that wait for the end of the present peer.
    std::deque<AcceptedPeer> waiting_ PROCMGR_GUARDED_BY(lock_);
    TimerFd timer_ PROCMGR_GUARDED_BY(lock_);  // of a server
    uint64_t timerWatch_ PROCMGR_GUARDED_BY(lock_) = 0;
    bool isTimerSet_ PROCMGR_GUARDED_BY(lock_) = false;
};

}  // namespace PlatformHost
