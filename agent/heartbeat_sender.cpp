#include "agent/heartbeat_sender.h"

#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "agent/packet_socket.h"
#include "agent/signal_free_thread.h"
#include "wire/socket_paths.h"

namespace ProcMgr::Agent {
namespace {

using std::chrono::milliseconds;

constexpr std::chrono::hours PERIOD_MAX{1};

// Sends one beat, and connects before that if there is no connection. After a failed send it
// connects once more: the daemon ends the connection of a process that it does not know yet, and
// may have been restarted.
void SendBeat(UniqueFd& connection, const std::string& name) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!connection.IsValid()) {
            connection = ConnectSocket(Wire::HEARTBEAT_SOCKET);
        }
        if (!connection.IsValid() ||
            send(connection.Get(), name.data(), name.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 ||
            errno == EAGAIN) {
            return;
        }
        connection.Reset();
    }
}

}  // namespace

HeartbeatSender::HeartbeatSender(std::string serviceName) : serviceName_(std::move(serviceName)) {}

HeartbeatSender::~HeartbeatSender() {
    Stop();
}

bool HeartbeatSender::Start(milliseconds period) {
    if (period <= milliseconds::zero() || period > PERIOD_MAX) {
        return false;
    }
    const Wire::LockGuard control(control_);
    {
        const Wire::LockGuard lock(mutex_);
        period_ = period;
    }
    changed_.NotifyAll();
    if (thread_.joinable()) {
        return true;
    }
    std::optional<std::thread> thread = StartSignalFreeThread([this] { Run(); });
    if (!thread) {
        return false;
    }
    thread_ = std::move(*thread);
    return true;
}

void HeartbeatSender::Stop() {
    const Wire::LockGuard control(control_);
    {
        const Wire::LockGuard lock(mutex_);
        period_ = milliseconds::zero();
    }
    changed_.NotifyAll();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void HeartbeatSender::Run() {
    UniqueFd connection;
    Wire::UniqueLock lock(mutex_);
    while (period_ > milliseconds::zero()) {
        const milliseconds period = period_;
        lock.Unlock();
        SendBeat(connection, serviceName_);
        lock.Lock();
        changed_.WaitUntil(lock, DeadlineIn(period),
                           [this, period]() PROCMGR_REQUIRES(mutex_) { return period_ != period; });
    }
}

}  // namespace ProcMgr::Agent
