// The messaging library for unit tests: records every call, answers with scripted results and lets
// a test play the peer by calling the registered callback. Any thread may use it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/messaging.h"

namespace ProcMgr::Fakes {

class FakeMuxa {
public:
    // What scripted results belong to.
    enum class Call { OPEN, SEND, RESPOND, RPC, TIMED_RPC, CLOSE };

    struct Opened {
        int32_t result = 0;  // the descriptor, or the scripted failure
        MuxaOpenAttributes attributes;
    };
    struct Sent {
        int32_t fd = 0;
        std::vector<uint8_t> data;
        int32_t result = 0;
    };

    static FakeMuxa& Get();

    // Forgets everything: descriptors, records, scripts, hooks.
    void Reset();

    // The next result of `call`, behind those queued before. An OPEN without a script returns a
    // fresh descriptor (100, 101, ...), anything else 0.
    void Push(Call call, int32_t result, int count = 1);
    // What follows when the queue is empty.
    void SetDefault(Call call, int32_t result);
    // Called, without any lock, at the begin of each call of that kind.
    void SetHook(Call call, std::function<void(int32_t fd)> hook);

    std::vector<Opened> Opens() const;
    std::vector<Sent> Sends() const;      // every attempt, failed ones too
    std::vector<Sent> Delivered() const;  // only those with a result of 0 or more
    std::vector<MuxaResponse> Responses() const;
    std::vector<int32_t> Closes() const;  // every attempt
    size_t Count(Call call) const;
    // Descriptors opened and not closed with success.
    std::vector<int32_t> OpenFds() const;
    // The descriptor of the open pipe of that name; -1 without one.
    int32_t FdOf(const std::string& name) const;

    // Plays the peer of `fd`: calls its callback on this thread. False when `fd` is not open.
    bool Receive(int32_t fd, const void* data, uint32_t length);
    bool Receive(int32_t fd, const MuxaRequest& request);
    // The peer's connection ends: the callback gets no request.
    bool PeerGone(int32_t fd);

    // For the library's functions only.
    int32_t OnOpen(const MuxaOpenAttributes& attributes);  // pipes and servers
    int32_t OnSend(int32_t fd, const MuxaRequest* request);
    int32_t OnRespond(int32_t fd, const MuxaResponse& response);
    int32_t OnOther(Call call, int32_t fd);  // what is counted and no more
    int32_t OnClose(int32_t fd);

private:
    struct Endpoint {
        std::string name;
        MuxaCallback callback;
    };

    FakeMuxa() = default;
    void RunHook(Call call, int32_t fd);
    bool CallBack(int32_t fd, const MuxaRequest* request);
    // The callers hold mutex_.
    int32_t Next(Call call, int32_t fallback);

    mutable std::mutex mutex_;
    // All guarded by mutex_.
    int32_t nextFd_ = 100;
    std::map<Call, std::deque<int32_t>> results_;
    std::map<Call, int32_t> defaults_;
    std::map<Call, std::function<void(int32_t)>> hooks_;
    std::map<Call, size_t> counts_;
    std::map<int32_t, Endpoint> endpoints_;
    std::vector<Opened> opens_;
    std::vector<Sent> sends_;
    std::vector<MuxaResponse> responses_;
    std::vector<int32_t> closes_;
};

}  // namespace ProcMgr::Fakes
