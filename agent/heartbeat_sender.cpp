#include "agent/heartbeat_sender.h"

#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "agent/packet_socket.h"
#include "agent/signal_free_thread.h"

namespace ProcMgr::Agent {
namespace {

constexpr const char* SOCKET_PATH = "/run/heartbeat.sock";
constexpr std::chrono::hours PERIOD_MAX{1};

// Connects where there is no connection, or where the daemon has ended it: it closes those of
// processes that it does not know yet, and may have been restarted.
void SendBeat(UniqueFd& connection, const std::string& name) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!connection.IsValid()) {
            connection = ConnectSocket(SOCKET_PATH);
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

bool HeartbeatSender::Start(std::chrono::milliseconds period) {
    if (period <= std::chrono::milliseconds::zero() || period > PERIOD_MAX) {
        return false;
    }
    const std::lock_guard control(control_);
    {
        const std::lock_guard lock(mutex_);
        period_ = period;
    }
    changed_.notify_all();
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
    const std::lock_guard control(control_);
    {
        const std::lock_guard lock(mutex_);
        period_ = std::chrono::milliseconds::zero();
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void HeartbeatSender::Run() {
    UniqueFd connection;
    std::unique_lock lock(mutex_);
    while (period_ > std::chrono::milliseconds::zero()) {
        SendBeat(connection, serviceName_);
        const std::chrono::milliseconds period = period_;
        changed_.wait_for(lock, period, [&] { return period_ != period; });
    }
}

}  // namespace ProcMgr::Agent
