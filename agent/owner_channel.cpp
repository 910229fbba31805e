#include "agent/owner_channel.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string_view>
#include <utility>

#include "agent/codec.h"
#include "agent/signal_free_thread.h"

namespace ProcMgr::Agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Between two attempts to connect.
constexpr milliseconds RETRY_PAUSE{20};
// How long a request waits for a daemon that does not read, and how often it looks.
constexpr milliseconds SEND_PATIENCE{2000};
constexpr milliseconds SEND_PAUSE{5};
// From which the daemon expects no dynamic parameters.
constexpr std::string_view ACCESS_MANAGER = "zornmgr";
constexpr milliseconds FOR_EVER{-1};
// Keeps the sum of a time-out and the clock in range.
constexpr milliseconds LONGEST_WAIT = std::chrono::hours(24 * 365);

UniqueFd Connect(const std::string& path) {
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof(address.sun_path) - 1));
    if (!fd.IsValid() ||
        connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fd.Reset();
    }
    return fd;
}

// Blocks no longer than the kernel needs; nothing when there is no packet, 0 bytes at the end.
std::optional<size_t> Receive(int fd, std::span<uint8_t> buffer) {
    ssize_t length = 0;
    do {
        // A peer that went with our packets unread is told once as ECONNRESET, ahead of what it
        // had sent before. MSG_TRUNC yields the full length of a packet that does not fit.
        length = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    } while (length < 0 && (errno == EINTR || errno == ECONNRESET));
    if (length < 0) {
        return errno == EAGAIN ? std::nullopt : std::optional<size_t>(0);
    }
    return static_cast<size_t>(length);
}

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
        const UniqueFd connection = Connect(path_);
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
    // Nobody sends on it from here on, so the caller may close it.
    const std::lock_guard lock(mutex_);
    fd_ = -1;
}

// False when the connection is over: the daemon has gone, or sends what is no packet.
bool OwnerChannel::ReceiveOne(int fd, std::span<uint8_t> buffer) {
    const std::optional<size_t> length = Receive(fd, buffer);
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
    // What is no record, or of a type that is not known, is of a later version's daemon.
    const std::optional<Message::RequestMsg> record = DecodeRecord(packet->body);
    if (packet->kind != PacketKind::RESPONSE && record) {
        HandleRecord(*record);
    }
    return true;
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
    const std::set<std::string> wanted(names.begin(), names.end());
    const auto deadline = steady_clock::now() + std::clamp(timeout, milliseconds(0), LONGEST_WAIT);
    std::unique_lock lock(mutex_);
    if (!query || thread_.get_id() == std::this_thread::get_id() ||
        !answered_.wait_until(lock, deadline, [this] { return !isQuerying_; })) {
        return std::nullopt;
    }
    isQuerying_ = true;
    answer_.reset();
    lock.unlock();
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    // Alone: it need not wait for the whole list of another caller.
    const bool isSent = SendOne(query->front(), std::min(left, SEND_PATIENCE));
    lock.lock();
    // One that answers another query came too late for that.
    const auto isAnswered = [&] {
        return answer_ && answer_->size() == wanted.size() &&
               std::all_of(answer_->begin(), answer_->end(),
                           [&](const auto& entry) { return wanted.contains(entry.first); });
    };
    std::optional<StatusByName> answer;
    if (isSent && answered_.wait_until(lock, deadline, isAnswered)) {
        answer.swap(answer_);
    }
    isQuerying_ = false;
    answered_.notify_all();
    return answer;
}

bool OwnerChannel::SendAll(const std::optional<std::vector<Message::RequestMsg>>& records) {
    if (!records) {
        return false;
    }
    const std::lock_guard order(sendMutex_);
    return std::all_of(records->begin(), records->end(),
                       [this](const auto& record) { return SendOne(record, SEND_PATIENCE); });
}

// Tries again while the daemon's queue is full. The lock is not held in between: the thread goes on
// to receive.
bool OwnerChannel::SendOne(const Message::RequestMsg& record, milliseconds patience) {
    const RecordPacket packet = EncodeRecordPacket(PacketKind::REQUEST, 0, record);
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
