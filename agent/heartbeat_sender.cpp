#include "agent/heartbeat_sender.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "agent/signal_free_thread.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Agent {
namespace {

constexpr std::string_view SOCKET_PATH = "/run/heartbeat.sock";
constexpr std::chrono::hours PERIOD_MAX{1};

void SendBeat(int fd, const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(SOCKET_PATH.size() < sizeof(address.sun_path));
    std::memcpy(address.sun_path, SOCKET_PATH.data(), SOCKET_PATH.size());
    // To the path each time: a restarted daemon has a new socket under it.
    sendto(fd, name.data(), name.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address), sizeof(address));
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
    Wire::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.IsValid()) {
        return false;
    }
    std::optional<std::thread> thread =
        StartSignalFreeThread([this, owned = std::move(socket)] { Run(owned.Get()); });
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

void HeartbeatSender::Run(int fd) {
    std::unique_lock lock(mutex_);
    while (period_ > std::chrono::milliseconds::zero()) {
        SendBeat(fd, serviceName_);
        const std::chrono::milliseconds period = period_;
        changed_.wait_for(lock, period, [&] { return period_ != period; });
    }
}

}  // namespace ProcMgr::Agent
