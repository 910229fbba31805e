#include "tests/fakes/fake_muxa.h"

#include <utility>

namespace ProcMgr::Fakes {

namespace {

std::vector<uint8_t> Bytes(const MuxaRequest* request) {
    if (request == nullptr || request->data == nullptr) {
        return {};
    }
    const auto* begin = static_cast<const uint8_t*>(request->data);
    return {begin, begin + request->length};
}

}  // namespace

FakeMuxa& FakeMuxa::Get() {
    static FakeMuxa fake;
    return fake;
}

void FakeMuxa::Reset() {
    const std::lock_guard lock(mutex_);
    nextFd_ = 100;
    results_.clear();
    defaults_.clear();
    hooks_.clear();
    counts_.clear();
    endpoints_.clear();
    opens_.clear();
    sends_.clear();
    responses_.clear();
    closes_.clear();
}

void FakeMuxa::Push(Call call, int32_t result, int count) {
    const std::lock_guard lock(mutex_);
    results_[call].insert(results_[call].end(), static_cast<size_t>(count), result);
}

void FakeMuxa::SetDefault(Call call, int32_t result) {
    const std::lock_guard lock(mutex_);
    defaults_[call] = result;
}

void FakeMuxa::SetHook(Call call, std::function<void(int32_t)> hook) {
    const std::lock_guard lock(mutex_);
    hooks_[call] = std::move(hook);
}

std::vector<FakeMuxa::Opened> FakeMuxa::Opens() const {
    const std::lock_guard lock(mutex_);
    return opens_;
}

std::vector<FakeMuxa::Sent> FakeMuxa::Sends() const {
    const std::lock_guard lock(mutex_);
    return sends_;
}

std::vector<FakeMuxa::Sent> FakeMuxa::Delivered() const {
    auto sends = Sends();
    std::erase_if(sends, [](const Sent& sent) { return sent.result < 0; });
    return sends;
}

std::vector<MuxaResponse> FakeMuxa::Responses() const {
    const std::lock_guard lock(mutex_);
    return responses_;
}

std::vector<int32_t> FakeMuxa::Closes() const {
    const std::lock_guard lock(mutex_);
    return closes_;
}

size_t FakeMuxa::Count(Call call) const {
    const std::lock_guard lock(mutex_);
    const auto found = counts_.find(call);
    return found == counts_.end() ? 0 : found->second;
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
    for (const auto& [fd, endpoint] : endpoints_) {
        if (endpoint.name == name) {
            return fd;
        }
    }
    return -1;
}

bool FakeMuxa::Receive(int32_t fd, const void* data, uint32_t length) {
    MuxaRequest request;
    request.data = data;
    request.length = length;
    return CallBack(fd, &request);
}

bool FakeMuxa::Receive(int32_t fd, const MuxaRequest& request) {
    return CallBack(fd, &request);
}

bool FakeMuxa::PeerGone(int32_t fd) {
    return CallBack(fd, nullptr);
}

bool FakeMuxa::CallBack(int32_t fd, const MuxaRequest* request) {
    Endpoint endpoint;
    {
        const std::lock_guard lock(mutex_);
        const auto found = endpoints_.find(fd);
        if (found == endpoints_.end()) {
            return false;
        }
        endpoint = found->second;
    }
    endpoint.callback(fd, request, endpoint.name);
    return true;
}

int32_t FakeMuxa::OnOpen(const MuxaOpenAttributes& attributes) {
    RunHook(Call::OPEN, -1);
    const std::lock_guard lock(mutex_);
    const int32_t result = Next(Call::OPEN, nextFd_++);
    if (result > 0) {
        endpoints_[result] = {attributes.name, attributes.callback};
    }
    opens_.push_back({result, attributes});
    return result;
}

int32_t FakeMuxa::OnSend(int32_t fd, const MuxaRequest* request) {
    RunHook(Call::SEND, fd);
    const std::lock_guard lock(mutex_);
    const int32_t result = Next(Call::SEND, 0);
    sends_.push_back({fd, Bytes(request), result});
    return result;
}

int32_t FakeMuxa::OnRespond(int32_t fd, const MuxaResponse& response) {
    RunHook(Call::RESPOND, fd);
    const std::lock_guard lock(mutex_);
    responses_.push_back(response);
    return Next(Call::RESPOND, 0);
}

int32_t FakeMuxa::OnOther(Call call, int32_t fd) {
    RunHook(call, fd);
    const std::lock_guard lock(mutex_);
    return Next(call, 0);
}

int32_t FakeMuxa::OnClose(int32_t fd) {
    RunHook(Call::CLOSE, fd);
    const std::lock_guard lock(mutex_);
    const int32_t result = Next(Call::CLOSE, 0);
    closes_.push_back(fd);
    if (result >= 0) {
        endpoints_.erase(fd);
    }
    return result;
}

void FakeMuxa::RunHook(Call call, int32_t fd) {
    std::function<void(int32_t)> hook;
    {
        const std::lock_guard lock(mutex_);
        const auto found = hooks_.find(call);
        if (found != hooks_.end()) {
            hook = found->second;
        }
    }
    if (hook) {
        hook(fd);
    }
}

int32_t FakeMuxa::Next(Call call, int32_t fallback) {
    ++counts_[call];
    auto& queue = results_[call];
    if (!queue.empty()) {
        const int32_t result = queue.front();
        queue.pop_front();
        return result;
    }
    const auto found = defaults_.find(call);
    return found == defaults_.end() ? fallback : found->second;
}

}  // namespace ProcMgr::Fakes

using ProcMgr::Fakes::FakeMuxa;

int32_t MuxaOpen(const MuxaOpenAttributes& attributes) {
    return FakeMuxa::Get().OnOpen(attributes);
}

int32_t MuxaSendRequest(int32_t fd, const MuxaRequest* request) {
    return FakeMuxa::Get().OnSend(fd, request);
}

int32_t MuxaCreateServer(const MuxaServerAttributes& attributes, uint32_t /*maxPeers*/,
                         uint32_t /*flags*/) {
    MuxaOpenAttributes server;
    server.name = attributes.name;
    server.callback = attributes.callback;
    return FakeMuxa::Get().OnOpen(server);
}

int32_t MuxaSendResponse(int32_t fd, const MuxaResponse* response) {
    return FakeMuxa::Get().OnRespond(fd, *response);
}

int32_t MuxaRPCSync(int32_t fd, MuxaRequest* /*request*/, MuxaResponse* /*response*/) {
    return FakeMuxa::Get().OnOther(FakeMuxa::Call::RPC, fd);
}

int32_t MuxaTimedRPCSync(int32_t fd, MuxaRequest* /*request*/, MuxaResponse* /*response*/,
                         int32_t /*timeout*/) {
    return FakeMuxa::Get().OnOther(FakeMuxa::Call::TIMED_RPC, fd);
}

int32_t MuxaClosePipe(int32_t fd) {
    return FakeMuxa::Get().OnClose(fd);
}
