// One addressable line of the messaging library: the records that wait for the peer, the calls
// that wait for a response, and the peer's connection while there is one. A pipe has one for as
// long as it is open, a server one for each peer.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/muxa_socket.h"
#include "platform/host/muxa_workers.h"
#include "platform/messaging.h"

namespace PlatformHost {

// The callback of a pipe or of a server. Knows whether it is running, so that closing and calling
// exclude each other, and closing wins. Thread-safe.
class MuxaGate {
public:
    MuxaGate(std::string name, MuxaCallback callback)
        : name_(std::move(name)), callback_(std::move(callback)) {}

    // Runs the callback, unless closing has begun.
    void Call(int32_t fd, const MuxaRequest* request);

    // Closes for good: 0, -16 while the callback is running, -9 when closed already. No call begins
    // once this has been tried.
    int32_t Close();

    bool IsClosing();

private:
    const std::string name_;
    const MuxaCallback callback_;
    std::mutex lock_;  // guards the fields below
    uint32_t running_ = 0;
    bool isClosing_ = false;
    bool isClosed_ = false;
};

// Thread-safe. The socket is used and closed under the lock only, so that no number is mixed up.
class MuxaChannel {
public:
    using Deadline = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds MAX_SILENCE{5};

    // `isPipe`: the line outlives its peers, and records are kept for the next one.
    MuxaChannel(int32_t id, bool isPipe, std::shared_ptr<MuxaGate> gate, MuxaWorkers& workers)
        : id_(id), isPipe_(isPipe), gate_(std::move(gate)), workers_(workers) {}

    int32_t Id() const { return id_; }

    // Connects the line to a peer that was let in; false when that failed, the peer is gone then.
    bool Attach(AcceptedPeer peer);

    // Handles an event of the peer's socket on a worker; reads one packet at most. Returns true
    // when the connection has ended and the callback has been told.
    bool OnReady(std::span<uint8_t> buffer);

    // Sends now or queues. -11 when the queue is full, -32 when there is no peer to wait for.
    int32_t Send(const MuxaHeader& header, std::span<const uint8_t> body);

    // Sends a request and waits for its response, until the deadline if there is one.
    int32_t Call(std::span<const uint8_t> body, MuxaResponse& response,
                 std::optional<Deadline> deadline);

    // Ends the line: nothing is read, sent or called any more.
    void Shut();

    // The same, but -16 while the callback is running for this line; no other call of it begins
    // then.
    int32_t ShutIfIdle();

    // Ends the connection of a peer whose last request is MAX_SILENCE ago; the callback is told as
    // of any other end. Returns when to look again.
    Deadline EndIfSilent(Deadline now);

private:
    struct Packet {
        MuxaHeader header;
        std::vector<uint8_t> body;
    };

    // A call that waits; lives on the caller's stack.
    struct PendingCall {
        MuxaResponse& response;
        int32_t result = 0;
        bool isDone = false;
        std::condition_variable done;
    };

    enum class Step { NOTHING, REQUEST, ENDED };

    // All of these are called with the lock held.
    Step ReadLocked(std::span<uint8_t> buffer, MuxaRequest& request);
    int32_t SendLocked(const MuxaHeader& header, std::span<const uint8_t> body);
    bool TrySendLocked(const MuxaHeader& header, std::span<const uint8_t> body);
    bool CanQueueLocked(MuxaKind kind) const;
    bool IsFullLocked(MuxaKind kind) const;
    void FlushLocked();
    void ArmLocked();
    void DisconnectLocked();
    void ShutLocked();
    void CompleteLocked(uint64_t sequence, std::span<const uint8_t> body);
    void FailCallsLocked(int32_t result);
    void WithdrawLocked(uint64_t sequence);
    uint64_t Token() const;

    const int32_t id_;
    const bool isPipe_;
    const std::shared_ptr<MuxaGate> gate_;
    MuxaWorkers& workers_;

    std::mutex lock_;  // guards the fields below
    UniqueFd socket_;  // of the present peer
    ucred credentials_{};
    bool isBroken_ = false;      // the peer does not take packets any more
    bool isDelivering_ = false;  // a worker is busy with the callback; nothing is read
    bool isClosing_ = false;     // the callback is not called any more
    bool isShut_ = false;
    Deadline lastRequest_;  // when the last one was dealt with; at first, when the peer came
    std::deque<Packet> queue_;
    std::map<uint64_t, PendingCall*> calls_;  // by sequence number
    uint64_t lastSequence_ = 0;
};

}  // namespace PlatformHost
