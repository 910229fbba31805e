#include "resource/upload_answers.h"

#include <new>
#include <utility>

#include "main/common/muxa_retry.h"

namespace ProcMgr {
namespace {

constexpr size_t WAITING_MAX = 1000;

// A send that fails for lack of memory is repeated, too: memory may be free at the next attempt.
int32_t TrySend(int32_t peer, const MuxaResponse& answer) {
    MayWait("a peer");
    try {
        return MuxaSendResponse(peer, &answer);
    } catch (const std::bad_alloc&) {
        return MUXA_TRY_AGAIN;
    }
}

}  // namespace

void UploadAnswers::Send(int32_t peer, MuxaResponse answer) {
    if (TrySend(peer, answer) != MUXA_TRY_AGAIN) {
        return;
    }
    auto kept = std::make_shared<const MuxaResponse>(std::move(answer));
    const LockGuard lock(mutex_);
    if (isStopping_ || waiting_.size() >= WAITING_MAX) {
        return;
    }
    waiting_.try_emplace(peer, Waiting{std::move(kept)});
    if (!isServing_) {
        isServing_ = worker_.Post([this] { Serve(); });
    }
}

void UploadAnswers::Forget(int32_t peer) {
    const LockGuard lock(mutex_);
    waiting_.erase(peer);
}

bool UploadAnswers::Stop(SteadyTime end) {
    {
        const LockGuard lock(mutex_);
        isStopping_ = true;
        waiting_.clear();
    }
    return worker_.Stop(end);
}

void UploadAnswers::Serve() {
    while (!IsServed()) {
        SleepFor(SEND_PAUSE);
        int32_t peer = 0;
        while (const Answer answer = FindNext(peer)) {
            Settle(peer, answer, TrySend(peer, *answer));
        }
    }
}

bool UploadAnswers::IsServed() {
    const LockGuard lock(mutex_);
    isServing_ = !waiting_.empty();
    return !isServing_;
}

UploadAnswers::Answer UploadAnswers::FindNext(int32_t& peer) {
    const LockGuard lock(mutex_);
    const auto next = waiting_.upper_bound(peer);
    if (next == waiting_.end()) {
        return nullptr;
    }
    peer = next->first;
    return next->second.answer;
}

void UploadAnswers::Settle(int32_t peer, const Answer& answer, int32_t result) {
    const LockGuard lock(mutex_);
    const auto entry = waiting_.find(peer);
    // During the attempt the connection may have ended, and another answer may have been stored for
    // a new peer with the same descriptor.
    if (entry == waiting_.end() || entry->second.answer != answer) {
        return;
    }
    if (result != MUXA_TRY_AGAIN || ++entry->second.attempts >= SEND_ATTEMPTS) {
        waiting_.erase(entry);
    }
}

}  // namespace ProcMgr
