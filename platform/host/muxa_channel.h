// One channel of the messaging library: the records that wait for the peer, the calls that wait for
// a response, and the connection of the present peer. A pipe has one channel from open to close, a
// server one for each peer. Called by the endpoint, by the functions of platform/messaging.h, and
// on the workers.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "platform/host/event_workers.h"
#include "platform/host/muxa_gate.h"
#include "platform/host/unix_socket.h"
#include "platform/messaging.h"
#include "wire/mutex.h"
#include "wire/packet.h"

namespace PlatformHost {

// Thread-safe. The socket is used and closed under the lock only: its number may belong to another
// file as soon as it is closed.
class MuxaChannel {
public:
    using Deadline = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds MAX_SILENCE{5};

    // `isPipe`: the channel outlives its peers, and records wait for the next peer.
    MuxaChannel(int32_t id, bool isPipe, std::shared_ptr<MuxaGate> gate, EventWorkers& workers)
        : id_(id), isPipe_(isPipe), gate_(std::move(gate)), workers_(workers) {}

    int32_t Id() const { return id_; }

    // Connects the channel to an accepted peer; `onEvent` is to call OnReady. Returns false, with
    // the connection closed, when the channel is shut or the kernel refuses.
    bool Attach(AcceptedPeer peer, EventWorkers::Handler onEvent);

    // Handles an event of the peer's socket on a worker; reads one packet at most. Returns true
    // when the connection has ended and the callback has been called for its end.
    bool OnReady(std::span<uint8_t> buffer);

    // Sends now or queues. Returns 0, -11 when the queue is full, -32 when the record cannot wait
    // for a peer, -9 when the channel is shut.
    int32_t Send(const Wire::PacketHeader& header, std::span<const uint8_t> body);

    // Sends a request and waits for its response, until the deadline if there is one. Results are
    // those of Send, -110 at the deadline, -32 when the connection has ended, and -35 inside a
    // callback of this channel.
    int32_t Call(std::span<const uint8_t> body, MuxaResponse& response,
                 std::optional<Deadline> deadline);

    // Ends the channel: nothing is read, sent or called any more.
    void Shut();

    // Shuts as well, but returns -16 while a callback of this channel is running; no further
    // callback starts in that case. Returns -9 when the channel is shut already.
    int32_t ShutIfIdle();

    // Ends the connection of a peer whose last request is MAX_SILENCE ago; the callback is called
    // as for any other end. Returns the time of the next check.
    Deadline EndIfSilent(Deadline now);

private:
    struct Packet {
        Wire::PacketHeader header;
        std::vector<uint8_t> body;
    };

    // A call that waits for its response; lives on the caller's stack. Guarded by lock_.
    struct PendingCall {
        MuxaResponse& response;
        int32_t result = 0;
        bool isDone = false;
        Wire::Condition done;
    };

    enum class Step { NOTHING, REQUEST, ENDED };

    Step ReadLocked(std::span<uint8_t> buffer, MuxaRequest& request) PROCMGR_REQUIRES(lock_);
    int32_t SendLocked(const Wire::PacketHeader& header, std::span<const uint8_t> body)
        PROCMGR_REQUIRES(lock_);
    bool TrySendLocked(const Wire::PacketHeader& header, std::span<const uint8_t> body)
        PROCMGR_REQUIRES(lock_);
    bool CanQueueLocked(Wire::PacketKind kind) const PROCMGR_REQUIRES(lock_);
    bool IsFullLocked(Wire::PacketKind kind) const PROCMGR_REQUIRES(lock_);
    void FlushLocked() PROCMGR_REQUIRES(lock_);
    void ArmLocked() PROCMGR_REQUIRES(lock_);
    void BreakLocked() PROCMGR_REQUIRES(lock_);
    void DisconnectLocked() PROCMGR_REQUIRES(lock_);
    void ShutLocked() PROCMGR_REQUIRES(lock_);
    void CompleteLocked(uint64_t sequence, std::span<const uint8_t> body) PROCMGR_REQUIRES(lock_);
    void FailCallsLocked(int32_t result) PROCMGR_REQUIRES(lock_);
    void WithdrawLocked(uint64_t sequence) PROCMGR_REQUIRES(lock_);

    const int32_t id_;
    const bool isPipe_;
    const std::shared_ptr<MuxaGate> gate_;
    EventWorkers& workers_;

    Wire::Mutex lock_;
    AcceptedPeer peer_ PROCMGR_GUARDED_BY(lock_);  // its socket is invalid while there is no peer
    uint64_t watch_ PROCMGR_GUARDED_BY(lock_) = 0;
    // The peer accepts no packets any more.
    bool isBroken_ PROCMGR_GUARDED_BY(lock_) = false;
    // A worker runs the callback; until its end, no packet is read.
    bool isDelivering_ PROCMGR_GUARDED_BY(lock_) = false;
    // The callback is not called any more.
    bool isClosing_ PROCMGR_GUARDED_BY(lock_) = false;
    bool isShut_ PROCMGR_GUARDED_BY(lock_) = false;
    // Time at which the callback of the last request ended, or at which the peer was attached.
    Deadline lastRequest_ PROCMGR_GUARDED_BY(lock_);
    std::deque<Packet> queue_ PROCMGR_GUARDED_BY(lock_);
    std::map<uint64_t, PendingCall*> calls_ PROCMGR_GUARDED_BY(lock_);  // by sequence number
    uint64_t lastSequence_ PROCMGR_GUARDED_BY(lock_) = 0;
};

}  // namespace PlatformHost
