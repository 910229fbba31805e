// The messaging library for unit tests: records every call, answers with scripted results and lets
// a test play the peer by calling the registered callback. Any thread may use it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/messaging.h"
#include "tests/fakes/recorder.h"

namespace ProcMgr::Fakes {

class FakeMuxa {
public:
    enum class Call { OPEN, SEND, RESPOND, RPC, TIMED_RPC, CLOSE };

    // One call. `attributes` is set for OPEN (pipes and servers), `data` for SEND, `response` for
    // RESPOND; `fd` is -1 for OPEN, whose descriptor is the result.
    struct Recorded {
        Call call = Call::OPEN;
        int32_t fd = -1;
        int32_t result = 0;
        MuxaOpenAttributes attributes = {};
        std::vector<uint8_t> data = {};
        MuxaResponse response = {};
    };

    static FakeMuxa& Get() {
        static FakeMuxa fake;
        return fake;
    }
    // Forgets everything: descriptors, records, scripts, hooks.
    void Reset();

    // Appends to the queue of results. Without a queued result OPEN returns a fresh descriptor
    // (100, 101, ...), any other call the default or 0.
    void Push(Call call, int32_t result, int count = 1) { calls_.Push(call, result, count); }
    void SetDefault(Call call, int32_t result) { calls_.SetDefault(call, result); }
    // Called, without any lock, at the beginning of each call of that kind.
    void SetHook(Call call, std::function<void(int32_t fd)> hook) {
        calls_.SetHook(call, [hook = std::move(hook)](const Recorded& made) { hook(made.fd); });
    }

    std::vector<Recorded> Opens() const { return Of(Call::OPEN); }
    std::vector<Recorded> Sends() const { return Of(Call::SEND); }  // failed ones too
    std::vector<Recorded> Delivered() const;                        // sends that did not fail
    std::vector<MuxaResponse> Responses() const { return Of(Call::RESPOND, &Recorded::response); }
    // The descriptors of all attempts.
    std::vector<int32_t> Closes() const { return Of(Call::CLOSE, &Recorded::fd); }
    size_t Count(Call call) const { return Of(call).size(); }
    // Descriptors that were opened and not closed with success.
    std::vector<int32_t> OpenFds() const;
    // The descriptor of the open pipe of that name; -1 without one.
    int32_t FdOf(const std::string& name) const;

    // Plays the peer of `fd`: calls its callback on this thread. False when `fd` is not open.
    bool Receive(int32_t fd, const MuxaRequest& request) { return CallBack(fd, &request); }
    // The peer's connection ends: the callback gets no request.
    bool PeerGone(int32_t fd) { return CallBack(fd, nullptr); }

    // For the faked functions only.
    int32_t Open(const MuxaOpenAttributes& attributes);
    int32_t Close(int32_t fd);
    int32_t Add(Recorded call) { return calls_.Add(call.call, call); }

private:
    std::vector<Recorded> Of(Call call) const;
    template <typename Field>
    std::vector<Field> Of(Call call, Field Recorded::*field) const {
        std::vector<Field> fields;
        for (const Recorded& made : Of(call)) {
            fields.push_back(made.*field);
        }
        return fields;
    }
    bool CallBack(int32_t fd, const MuxaRequest* request);

    Recorder<Call, Recorded> calls_;
    mutable std::mutex mutex_;  // guards what follows
    int32_t nextFd_ = 100;
    std::map<int32_t, std::pair<std::string, MuxaCallback>> endpoints_;  // name and callback by fd
};

}  // namespace ProcMgr::Fakes
