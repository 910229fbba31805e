// The answers of the upload server that their peers do not take at once. One thread tries them
// again, so that no thread of the messaging library waits for a peer that does not read.
// UploadRegistry sends its answers through here.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "main/common/serial_worker.h"
#include "platform/messaging.h"

namespace ProcMgr {

class UploadAnswers {
public:
    UploadAnswers() = default;
    ~UploadAnswers() { Stop(SteadyTime::max()); }
    UploadAnswers(const UploadAnswers&) = delete;
    UploadAnswers& operator=(const UploadAnswers&) = delete;

    // Sends an answer to the peer that the descriptor stands for. An answer that the peer does not
    // take now is tried again as often as any send, see main/muxa_retry.h. One answer for each peer
    // may wait, 1000 in all; further answers are dropped. Any thread; never waits for the peer.
    void Send(int32_t peer, MuxaResponse answer);

    // Drops what waits for a peer that has gone.
    void Forget(int32_t peer);

    // Drops what waits, and what comes later, and ends the thread. False when it still runs at
    // `end`: this object must not be destroyed then.
    bool Stop(SteadyTime end);

private:
    using Answer = std::shared_ptr<const MuxaResponse>;
    struct Waiting {
        Answer answer;
        int attempts = 1;
    };

    // The thread's job: tries what waits, until nothing does.
    void Serve();
    bool IsServed();
    // The answer for the next peer behind `peer`, which becomes that peer; null behind the last.
    Answer FindNext(int32_t& peer);
    // What follows from the result of an attempt.
    void Settle(int32_t peer, const Answer& answer, int32_t result);

    Mutex mutex_;
    std::map<int32_t, Waiting> waiting_;  // by peer; guarded by mutex_
    bool isServing_ = false;              // a job serves them; guarded by mutex_
    bool isStopping_ = false;             // guarded by mutex_
    SerialWorker worker_{"upload-answers"};
};

}  // namespace ProcMgr
