// Sends the answers of the upload server. A thread repeats the sends that a peer's full queue has
// refused, so that no thread of the messaging library waits for a peer that does not read.
// UploadRegistry sends all its answers through this class.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "main/common/serial_worker.h"
#include "platform/messaging.h"

namespace ProcMgr {

// Callable from any thread that holds no lock.
class UploadAnswers {
public:
    UploadAnswers() = default;
    ~UploadAnswers() { Stop(SteadyTime::max()); }
    UploadAnswers(const UploadAnswers&) = delete;
    UploadAnswers& operator=(const UploadAnswers&) = delete;

    // Sends an answer to the peer with this descriptor, without waiting for the peer. When the
    // peer's queue is full, the thread tries again, SEND_ATTEMPTS times in all. One answer for each
    // peer may wait, 1000 in all; further answers are dropped.
    void Send(int32_t peer, MuxaResponse answer) PROCMGR_EXCLUDES(mutex_);

    // Drops the answer that waits for a peer whose connection has ended.
    void Forget(int32_t peer) PROCMGR_EXCLUDES(mutex_);

    // Drops the answers that wait and all later ones, and ends the thread. False when the thread
    // still runs at `end`: this object must not be destroyed then.
    bool Stop(SteadyTime end) PROCMGR_EXCLUDES(mutex_);

private:
    using Answer = std::shared_ptr<const MuxaResponse>;
    struct Waiting {
        Answer answer;
        int attempts = 1;
    };

    // The job of the thread: repeats the sends until no answer waits.
    void Serve() PROCMGR_EXCLUDES(mutex_);
    // Whether no answer waits; the job ends then.
    bool IsServed() PROCMGR_EXCLUDES(mutex_);
    // The answer that waits for the peer with the next higher descriptor, which `peer` is set to;
    // null when there is none.
    Answer FindNext(int32_t& peer) PROCMGR_EXCLUDES(mutex_);
    // Drops the answer, or counts the attempt, as the result of the send requires.
    void Settle(int32_t peer, const Answer& answer, int32_t result) PROCMGR_EXCLUDES(mutex_);

    Mutex mutex_;
    std::map<int32_t, Waiting> waiting_ PROCMGR_GUARDED_BY(mutex_);  // by peer
    bool isServing_ PROCMGR_GUARDED_BY(mutex_) = false;              // Serve runs, or is about to
    bool isStopping_ PROCMGR_GUARDED_BY(mutex_) = false;
    SerialWorker worker_{"upload-answers"};
};

}  // namespace ProcMgr
