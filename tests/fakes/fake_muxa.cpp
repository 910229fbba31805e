#include "tests/fakes/fake_muxa.h"

namespace ProcMgr::Fakes {

void FakeMuxa::Reset() {
    calls_.Reset();
    const std::lock_guard lock(mutex_);
    nextFd_ = 100;
    endpoints_.clear();
}

std::vector<FakeMuxa::Recorded> FakeMuxa::Of(Call call) const {
    auto calls = calls_.Entries();
    std::erase_if(calls, [call](const Recorded& made) { return made.call != call; });
    return calls;
}

std::vector<FakeMuxa::Recorded> FakeMuxa::Delivered() const {
    auto sends = Sends();
    std::erase_if(sends, [](const Recorded& sent) { return sent.result < 0; });
    return sends;
}

std::vector<int32_t> FakeMuxa::OpenFds() const {
    const std::lock_guard lock(mutex_);
    std::vector<int32_t> fds;
    for (const auto& [fd, endpoint] : endpoints_) {
        fds.push_back(fd);
    }
    return fds;
}

int32_t FakeMuxa::FdOf(const std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto found =
        std::find_if(endpoints_.begin(), endpoints_.end(),
                     [&](const auto& endpoint) { return endpoint.second.first == name; });
    return found == endpoints_.end() ? -1 : found->first;
}

bool FakeMuxa::CallBack(int32_t fd, const MuxaRequest* request) {
    std::unique_lock lock(mutex_);
    const auto found = endpoints_.find(fd);
    if (found == endpoints_.end()) {
        return false;
    }
    const auto [name, callback] = found->second;
    lock.unlock();
    callback(fd, request, name);
    return true;
}

int32_t FakeMuxa::Open(const MuxaOpenAttributes& attributes) {
    std::unique_lock lock(mutex_);
    const int32_t fresh = nextFd_++;
    lock.unlock();
    const int32_t fd =
        calls_.Add(Call::OPEN, {.call = Call::OPEN, .attributes = attributes}, fresh);
    if (fd > 0) {
        lock.lock();
        endpoints_[fd] = {attributes.name, attributes.callback};
    }
    return fd;
}

int32_t FakeMuxa::Close(int32_t fd) {
    const int32_t result = Add({.call = Call::CLOSE, .fd = fd});
    if (result >= 0) {
        const std::lock_guard lock(mutex_);
        endpoints_.erase(fd);
    }
    return result;
}

}  // namespace ProcMgr::Fakes

using ProcMgr::Fakes::FakeMuxa;

int32_t MuxaOpen(const MuxaOpenAttributes& attributes) {
    return FakeMuxa::Get().Open(attributes);
}

int32_t MuxaCreateServer(const MuxaServerAttributes& attributes, uint32_t /*maxPeers*/,
                         uint32_t /*flags*/) {
    return FakeMuxa::Get().Open({.name = attributes.name, .callback = attributes.callback});
}

int32_t MuxaSendRequest(int32_t fd, const MuxaRequest* request) {
    FakeMuxa::Recorded call{.call = FakeMuxa::Call::SEND, .fd = fd};
    if (request != nullptr && request->data != nullptr) {
        const auto* begin = static_cast<const uint8_t*>(request->data);
        call.data.assign(begin, begin + request->length);
    }
    return FakeMuxa::Get().Add(call);
}

int32_t MuxaSendResponse(int32_t fd, const MuxaResponse* response) {
    return FakeMuxa::Get().Add({.call = FakeMuxa::Call::RESPOND, .fd = fd, .response = *response});
}

int32_t MuxaRPCSync(int32_t fd, MuxaRequest* /*request*/, MuxaResponse* /*response*/) {
    return FakeMuxa::Get().Add({.call = FakeMuxa::Call::RPC, .fd = fd});
}

int32_t MuxaTimedRPCSync(int32_t fd, MuxaRequest* /*request*/, MuxaResponse* /*response*/,
                         int32_t /*timeout*/) {
    return FakeMuxa::Get().Add({.call = FakeMuxa::Call::TIMED_RPC, .fd = fd});
}

int32_t MuxaClosePipe(int32_t fd) {
    return FakeMuxa::Get().Close(fd);
}
