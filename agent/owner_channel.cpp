#include "agent/owner_channel.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <utility>

#include "agent/packet_socket.h"
#include "agent/signal_free_thread.h"
#include "message/record_codec.h"
#include "message/report_codec.h"
#include "message/request_codec.h"
#include "wire/packet_io.h"
#include "wire/socket_paths.h"

namespace ProcMgr::Agent {
namespace {

using std::chrono::milliseconds;
using Wire::LockGuard;
using Wire::UniqueLock;

constexpr milliseconds FOR_EVER{-1};

}  // namespace

OwnerChannel::OwnerChannel(std::string serviceName)
    : serviceName_(std::move(serviceName)),
      path_(Wire::PipePath(serviceName_)),
      isNameUsable_(IsSocketPath(path_)),
      heartbeat_(serviceName_) {}

OwnerChannel::~OwnerChannel() {
    std::thread thread;
    {
        const LockGuard lock(mutex_);
        isStopping_ = true;
        Wake();
        thread = std::move(thread_);
    }
    if (thread.joinable()) {
        thread.join();
    }
}

bool OwnerChannel::Attach(milliseconds timeout) {
    UniqueLock lock(mutex_);
    if (!StartThread()) {
        return false;
    }
    return attached_.WaitUntil(lock, DeadlineIn(timeout),
                               [this]() PROCMGR_REQUIRES(mutex_) { return fd_ >= 0; });
}

bool OwnerChannel::IsAttached() const {
    const LockGuard lock(mutex_);
    return fd_ >= 0;
}

bool OwnerChannel::ReportRunning() {
    return ReportState(BaseServiceStateType::RUNNING);
}

bool OwnerChannel::ReportTerminating() {
    return ReportState(BaseServiceStateType::TERMINATING);
}

bool OwnerChannel::ReportState(BaseServiceStateType state) {
    const LockGuard lock(mutex_);
    state_ = state;
    isStateUnsent_ = true;
    if (FlushState()) {
        return true;
    }
    Wake();
    return false;
}

void OwnerChannel::OnAppState(AppStateCallback callback) {
    // Destroyed after the lock: the replaced function may own something whose destructor waits.
    auto shared =
        callback ? std::make_shared<const AppStateCallback>(std::move(callback)) : nullptr;
    const LockGuard lock(mutex_);
    onAppState_.swap(shared);
}

bool OwnerChannel::StartHeartbeat(milliseconds period) {
    return isNameUsable_ && heartbeat_.Start(period);
}

void OwnerChannel::StopHeartbeat() {
    heartbeat_.Stop();
}

bool OwnerChannel::StartThread() {
    if (!isNameUsable_ || thread_.joinable()) {
        return isNameUsable_;
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
        const LockGuard lock(mutex_);
        fd_ = fd;
        isStateUnsent_ = state_.has_value();
        FlushState();
    }
    attached_.NotifyAll();
    std::vector<uint8_t> buffer(Wire::PACKET_MAX);
    short events = 0;
    while (Wait(fd, FOR_EVER, events) && ((events & ~POLLOUT) == 0 || ReceiveOne(fd, buffer))) {
        const LockGuard lock(mutex_);
        FlushState();
    }
    {
        // No other thread sends on the connection from here on, so that Run can close it.
        const LockGuard lock(mutex_);
        fd_ = -1;
        isCut_ = true;
    }
    answered_.NotifyAll();
}

bool OwnerChannel::ReceiveOne(int fd, std::span<uint8_t> buffer) {
    Wire::Packet packet;
    switch (Wire::ReceivePacket(fd, buffer, packet)) {
        case Wire::ReceiveResult::NONE:
            return true;
        case Wire::ReceiveResult::ENDED:
            return false;
        case Wire::ReceiveResult::PACKET:
            break;
    }
    if (packet.header.kind == Wire::PacketKind::RESPONSE) {
        HandleResponse(packet.header.sequence, Message::DecodeDelayResult(packet.body));
        return true;
    }
    // A body that is no record, or a record of an unknown type, is ignored: a later version of the
    // daemon may send it.
    const std::optional<Message::RequestMsg> record = Message::DecodeRecord(packet.body);
    if (record) {
        HandleRecord(*record);
    }
    return true;
}

void OwnerChannel::HandleResponse(uint64_t sequence, std::optional<uint32_t> result) {
    {
        const LockGuard lock(mutex_);
        // A response with another number answers a call that has timed out.
        if (sequence != sequence_ || !result) {
            return;
        }
        result_ = result;
    }
    answered_.NotifyAll();
}

void OwnerChannel::HandleRecord(const Message::RequestMsg& record) {
    if (auto answer = Message::DecodeDetailStatus(record)) {
        {
            const LockGuard lock(mutex_);
            answer_ = std::move(*answer);
        }
        answered_.NotifyAll();
        return;
    }
    const auto states = Message::DecodeAppStates(record);
    std::shared_ptr<const AppStateCallback> callback;
    {
        const LockGuard lock(mutex_);
        callback = onAppState_;
    }
    if (states && callback) {
        (*callback)(*states);
    }
}

bool OwnerChannel::Wait(int fd, milliseconds timeout, short& events) {
    int wake = -1;
    bool hasUnsent = false;
    {
        const LockGuard lock(mutex_);
        if (isStopping_) {
            return false;
        }
        wake = wake_.Get();
        hasUnsent = isStateUnsent_;
    }
    // poll() ignores a negative descriptor.
    pollfd waited[] = {{wake, POLLIN, 0},
                       {fd, static_cast<short>(hasUnsent ? POLLIN | POLLOUT : POLLIN), 0}};
    poll(waited, std::size(waited), static_cast<int>(timeout.count()));
    events = waited[1].revents;
    eventfd_t count = 0;
    eventfd_read(wake, &count);
    const LockGuard lock(mutex_);
    return !isStopping_;
}

bool OwnerChannel::FlushState() {
    if (isStateUnsent_ && fd_ >= 0) {
        const auto record = Message::EncodeRecord(Message::EncodeStateReport(*state_));
        // When the connection is broken the thread notices that and connects again.
        isStateUnsent_ = Wire::SendPacket(fd_, {}, record) != Wire::SendResult::SENT;
    }
    return !isStateUnsent_;
}

void OwnerChannel::Wake() const {
    if (wake_.IsValid()) {
        eventfd_write(wake_.Get(), 1);
    }
}

}  // namespace ProcMgr::Agent
