// What has a name in the messaging library: a pipe or a server, with its listening socket and the
// peers that it let in. Also the table in which the process's descriptors are looked up.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "platform/host/muxa_channel.h"
#include "platform/host/muxa_socket.h"
#include "platform/host/muxa_workers.h"
#include "platform/host/unix_socket.h"

namespace PlatformHost {

class MuxaEndpoint;

// What a descriptor stands for: a pipe (both), a server (no channel), or one peer of a server.
struct MuxaEntry {
    std::shared_ptr<MuxaEndpoint> endpoint;
    std::shared_ptr<MuxaChannel> channel;
};

// The descriptors and the names of the process. Descriptors are numbers of the library's own, not
// of the kernel, so that one that was closed does not soon stand for something else. Thread-safe;
// calls nothing else with its lock held.
class MuxaTable {
public:
    // Returns a number of 1 or more that is not in use.
    int32_t NewId();
    void Add(int32_t id, MuxaEntry entry);
    // An entry without an endpoint when there is none.
    MuxaEntry Find(int32_t id);
    void Remove(int32_t id);

    // Takes the name that the socket path stands for; false when it is taken.
    bool Reserve(const std::string& path);
    void Release(const std::string& path);

private:
    std::mutex lock_;  // guards the fields below
    int32_t lastId_ = 0;
    std::map<int32_t, MuxaEntry> entries_;
    std::set<std::string> names_;
};

struct MuxaEndpointSettings {
    bool isPipe = true;
    std::string name;
    std::string path;  // of the socket
    MuxaCallback callback;
    std::optional<gid_t> gid;  // of the socket's file
    pid_t pid = 0;             // of a pipe: the process of the service
    uint32_t maxPeers = 1;
};

// Thread-safe. Its lock is taken before those of its channels and of the table.
class MuxaEndpoint : public std::enable_shared_from_this<MuxaEndpoint> {
public:
    // Set in the event token of a listening socket, or of a server's timer, beside its id.
    static constexpr uint64_t LISTENER_TOKEN = uint64_t{1} << 32;
    static constexpr uint64_t TIMER_TOKEN = uint64_t{1} << 33;

    MuxaEndpoint(MuxaEndpointSettings settings, MuxaTable& table, MuxaWorkers& workers);

    // Listens and enters the table. Returns the descriptor or a negative errno.
    int32_t Open();

    // Handles an event of the listening socket on a worker.
    void OnConnection();

    // Handles the timer on a worker: sends silent peers away.
    void OnTimer();

    // To be called when a peer's connection has ended and its callback has returned.
    void PeerEnded(int32_t id);

    // Closes everything and leaves the table: 0, -16 while the callback is running, -9 when closed.
    // No peer is let in and no call begins once this has been tried.
    int32_t Close();

    // Closes one peer of a server, with the same results.
    int32_t ClosePeer(MuxaChannel& channel);

    bool HasId(int32_t id) const { return id == id_; }

private:
    struct Peer {
        std::shared_ptr<MuxaChannel> channel;
        uid_t uid = 0;
    };

    int32_t ListenLocked();
    AcceptResult AcceptLocked();
    bool IsWelcomeLocked(const ucred& credentials) const;
    bool AdmitLocked(AcceptedPeer peer);
    bool QueueLocked(AcceptedPeer peer);
    bool SeatLocked(AcceptedPeer peer);
    void SetTimerLocked(std::chrono::steady_clock::duration delay);
    void ArmLocked();

    const MuxaEndpointSettings settings_;
    MuxaTable& table_;
    MuxaWorkers& workers_;
    const int32_t id_;
    const std::shared_ptr<MuxaGate> gate_;
    const std::shared_ptr<MuxaChannel> pipe_;  // null for a server

    std::mutex lock_;  // guards the fields below
    BoundSocket listener_;
    bool isClosed_ = false;
    bool isAccepting_ = false;  // a worker is in OnConnection, and arms the listener at its end
    // The connected ones, by id. What is past a server's limit waits in the listening socket.
    std::map<int32_t, Peer> peers_;
    std::deque<AcceptedPeer> waiting_;  // of a pipe: let in, until the present peer ends
    UniqueFd timer_;                    // of a server
    bool isTimerSet_ = false;
};

}  // namespace PlatformHost
