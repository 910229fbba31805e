#include "agent/owner_channel.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <string_view>
#include <utility>

#include "agent/codec.h"
#include "agent/packet_socket.h"
#include "agent/signal_free_thread.h"

namespace ProcMgr::Agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How long a request waits for a daemon that does not read, and how often it looks.
constexpr milliseconds SEND_PATIENCE{2000};
constexpr milliseconds SEND_PAUSE{5};
// From which the daemon expects no dynamic parameters.
constexpr std::string_view ACCESS_MANAGER = "zornmgr";
constexpr milliseconds FOR_EVER{-1};

}  // namespace

OwnerChannel::OwnerChannel(std::string serviceName)
    : serviceName_(std::move(serviceName)),
      path_(PipePath(serviceName_)),
      heartbeat_(serviceName_) {}

OwnerChannel::~OwnerChannel() {
    std::thread thread;
    {
        const std::lock_guard lock(mutex_);
        isStopping_ = true;
        Wake();
        thread = std::move(thread_);
    }
    if (thread.joinable()) {
        thread.join();
    }
}

bool OwnerChannel::Attach(milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!StartThread()) {
        return false;
    }
    return attached_.wait_for(lock, std::min(timeout, LONGEST_WAIT), [this] { return fd_ >= 0; });
}

bool OwnerChannel::IsAttached() const {
    const std::lock_guard lock(mutex_);
    return fd_ >= 0;
}

bool OwnerChannel::ReportRunning() {
    return ReportState(BaseServiceStateType::RUNNING);
}

bool OwnerChannel::ReportTerminating() {
    return ReportState(BaseServiceStateType::TERMINATING);
}

void OwnerChannel::OnAppState(AppStateCallback callback) {
    auto shared =
        callback ? std::make_shared<const AppStateCallback>(std::move(callback)) : nullptr;
    const std::lock_guard lock(mutex_);
    onAppState_.swap(shared);
}

bool OwnerChannel::StartHeartbeat(milliseconds period) {
    return !path_.empty() && heartbeat_.Start(period);
}

void OwnerChannel::StopHeartbeat() {
    heartbeat_.Stop();
}

bool OwnerChannel::StartThread() {
    if (path_.empty() || thread_.joinable()) {
        return !path_.empty();
    }
    if (!wake_.IsValid()) {
        wake_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    }
    std::optional<std::thread> thread;
    if (wake_.IsValid()) {
        thread = StartSignalFreeThread([this] { Run(); });
    }
    if (thread) {
        thread_ = std::move(*thread);
    }
    return thread.has_value();
}

void OwnerChannel::Run() {
    short none = 0;
    do {
        const UniqueFd connection = ConnectSocket(path_);
        if (connection.IsValid()) {
            Serve(connection.Get());
        }
    } while (Wait(-1, RETRY_PAUSE, none));
}

void OwnerChannel::Serve(int fd) {
    {
        const std::lock_guard lock(mutex_);
        fd_ = fd;
        isStateUnsent_ = state_.has_value();
        FlushState();
    }
    attached_.notify_all();
    std::vector<uint8_t> buffer(PACKET_MAX);
    short events = 0;
    while (Wait(fd, FOR_EVER, events) && ((events & ~POLLOUT) == 0 || ReceiveOne(fd, buffer))) {
        const std::lock_guard lock(mutex_);
        FlushState();
    }
    {
        // Nobody sends on it from here on, so the caller may close it.
        const std::lock_guard lock(mutex_);
        fd_ = -1;
        isCut_ = true;
    }
    answered_.notify_all();
}

// False when the connection is over: the daemon has gone, or sends what is no packet.
bool OwnerChannel::ReceiveOne(int fd, std::span<uint8_t> buffer) {
    const std::optional<size_t> length = ReceivePacket(fd, buffer);
    if (!length) {
        return true;
    }
    if (*length > buffer.size()) {
        return false;
    }
    const std::optional<Packet> packet = DecodePacket(buffer.first(*length));
    if (!packet) {
        return false;
    }
    if (packet->kind == PacketKind::RESPONSE) {
        HandleResponse(packet->sequence, DecodeResult(packet->body));
        return true;
    }
    // What is no record, or of a type that is not known, is of a later version's daemon.
    const std::optional<Message::RequestMsg> record = DecodeRecord(packet->body);
    if (record) {
        HandleRecord(*record);
    }
    return true;
}

// What is not for the call under way answers one that gave up.
void OwnerChannel::HandleResponse(uint64_t sequence, std::optional<uint32_t> result) {
    {
        const std::lock_guard lock(mutex_);
        if (sequence != sequence_ || !result) {
            return;
        }
        result_ = result;
    }
    answered_.notify_all();
}

void OwnerChannel::HandleRecord(const Message::RequestMsg& record) {
    if (auto answer = DecodeDetailStatus(record)) {
        {
            const std::lock_guard lock(mutex_);
            answer_ = std::move(*answer);
        }
        answered_.notify_all();
        return;
    }
    const auto states = DecodeAppStates(record);
    std::shared_ptr<const AppStateCallback> callback;
    {
        const std::lock_guard lock(mutex_);
        callback = onAppState_;
    }
    if (states && callback) {
        (*callback)(*states);
    }
}

bool OwnerChannel::Wait(int fd, milliseconds timeout, short& events) {
    int wake = -1;
    bool wantsToSend = false;
    {
        const std::lock_guard lock(mutex_);
        if (isStopping_) {
            return false;
        }
        wake = wake_.Get();
        wantsToSend = isStateUnsent_;
    }
    // A negative descriptor is passed over.
    pollfd waited[] = {{wake, POLLIN, 0},
                       {fd, static_cast<short>(wantsToSend ? POLLIN | POLLOUT : POLLIN), 0}};
    poll(waited, std::size(waited), static_cast<int>(timeout.count()));
    events = waited[1].revents;
    eventfd_t count = 0;
    eventfd_read(wake, &count);
    const std::lock_guard lock(mutex_);
    return !isStopping_;
}

bool OwnerChannel::StartApps(const std::vector<Message::StartAppInfo>& items) {
    return SendAll(MakeStartRequests(items, serviceName_ != ACCESS_MANAGER));
}

bool OwnerChannel::RestartApps(const std::vector<Message::RestartAppInfo>& items) {
    return SendAll(MakeRestartRequests(items, serviceName_ != ACCESS_MANAGER));
}

bool OwnerChannel::TermApps(const std::vector<Message::TermAppInfo>& items) {
    return SendAll(MakeTermRequests(items));
}

bool OwnerChannel::ReportExecution(const Message::AppExecInfo& info) {
    return SendAll(MakeExecutionReport(info));
}

bool OwnerChannel::LoadStartupCfg(const Message::StartupCfgInfo& info) {
    return SendAll(MakeStartupCfgRequest(Message::LOAD_STARTUP_CFG, info));
}

bool OwnerChannel::ReloadStartupCfg(const Message::StartupCfgInfo& info) {
    return SendAll(MakeStartupCfgRequest(Message::RELOAD_STARTUP_CFG, info));
}

std::optional<OwnerChannel::StatusByName> OwnerChannel::QueryAppState(
    const std::vector<std::string>& names, milliseconds timeout) {
    if (names.empty()) {
        return StatusByName();
    }
    const auto query = MakeQuery(names);
    if (!query) {
        return std::nullopt;
    }
    const std::set<std::string> wanted(names.begin(), names.end());
    std::optional<StatusByName> answer;
    const auto takeAnswer = [&] {
        // One that answers another query came too late for that.
        if (answer_ && answer_->size() == wanted.size() &&
            std::all_of(answer_->begin(), answer_->end(),
                        [&](const auto& entry) { return wanted.contains(entry.first); })) {
            answer.swap(answer_);
        }
        return answer.has_value();
    };
    Ask(EncodeRecordPacket(PacketKind::REQUEST, 0, query->front()), 0, timeout, takeAnswer);
    return answer;
}

std::optional<uint32_t> OwnerChannel::SetDelayCoreAffinity(
    const Message::DelayCoreAffinityReq& request, milliseconds timeout) {
    const uint64_t sequence = ++lastSequence_;
    std::optional<uint32_t> result;
    const auto takeResult = [&] {
        result = result_;
        return result.has_value();
    };
    Ask(EncodePacket(PacketKind::CALL, sequence, MakeDelayRequest(request)), sequence, timeout,
        takeResult);
    return result;
}

void OwnerChannel::Ask(std::span<const uint8_t> packet, uint64_t sequence, milliseconds timeout,
                       const std::function<bool()>& take) {
    const auto deadline = DeadlineIn(timeout);
    std::unique_lock lock(mutex_);
    if (thread_.get_id() == std::this_thread::get_id() ||
        !answered_.wait_until(lock, deadline, [this] { return !isAsking_; })) {
        return;
    }
    isAsking_ = true;
    isCut_ = false;
    sequence_ = sequence;
    answer_.reset();
    result_.reset();
    lock.unlock();
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    // Alone: it need not wait for the whole list of another caller.
    const bool isSent = SendOne(packet, std::min(left, SEND_PATIENCE));
    lock.lock();
    if (isSent) {
        answered_.wait_until(lock, deadline, [&] { return take() || isCut_; });
    }
    isAsking_ = false;
    answered_.notify_all();
}

bool OwnerChannel::SendAll(const std::optional<std::vector<Message::RequestMsg>>& records) {
    if (!records) {
        return false;
    }
    const std::lock_guard order(sendMutex_);
    return std::all_of(records->begin(), records->end(), [this](const auto& record) {
        return SendOne(EncodeRecordPacket(PacketKind::REQUEST, 0, record), SEND_PATIENCE);
    });
}

// Tries again while the daemon's queue is full. The lock is not held in between: the thread goes on
// to receive.
bool OwnerChannel::SendOne(std::span<const uint8_t> packet, milliseconds patience) {
    const auto deadline = steady_clock::now() + patience;
    while (true) {
        {
            const std::lock_guard lock(mutex_);
            if (fd_ < 0 || isStopping_) {
                return false;
            }
            if (send(fd_, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
                return true;
            }
            if (errno != EAGAIN && errno != EINTR) {
                return false;
            }
        }
        if (steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(SEND_PAUSE);
    }
}

bool OwnerChannel::ReportState(BaseServiceStateType state) {
    const std::lock_guard lock(mutex_);
    state_ = state;
    isStateUnsent_ = true;
    if (FlushState()) {
        return true;
    }
    Wake();
    return false;
}

// True when nothing is left to be sent. A connection that has broken is noticed by the thread.
bool OwnerChannel::FlushState() {
    if (!isStateUnsent_ || fd_ < 0) {
        return !isStateUnsent_;
    }
    const RecordPacket packet =
        EncodeRecordPacket(PacketKind::REQUEST, 0, MakeStateReport(*state_));
    ssize_t sent = 0;
    do {
        sent = send(fd_, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    isStateUnsent_ = sent < 0;
    return !isStateUnsent_;
}

void OwnerChannel::Wake() const {
    if (wake_.IsValid()) {
        eventfd_write(wake_.Get(), 1);
    }
}

}  // namespace ProcMgr::Agent
