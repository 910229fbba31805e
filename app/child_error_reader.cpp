#include "app/child_error_reader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "main/common/clock.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr {
namespace {

constexpr size_t BUFFER_SIZE = 900;
// The pause after each read.
constexpr std::chrono::milliseconds PAUSE{500};
constexpr int FOR_EVER = -1;

}  // namespace

ChildErrorReader::ChildErrorReader(const std::atomic<bool>& running)
    : running_(running), stopFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void ChildErrorReader::Stop() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stopFd_.Get(), &one, sizeof(one));
}

void ChildErrorReader::Run() {
    while (running_) {
        if (WaitForMessage()) {
            ReadChildErrInfo();
        }
        Pause(PAUSE);
    }
    ProcMgrLog(LOG_WARNING, "PROCMGR: ReceiveChildProcessMsgThread exit now.");
}

bool ChildErrorReader::WaitForMessage() const {
    std::array<pollfd, 2> fds = {
        pollfd{stopFd_.Get(), POLLIN, 0},
        // poll ignores a negative descriptor: without a pipe only Stop() ends the wait.
        pollfd{ProcMgrEnv::GetInstance().GetChildErrorReadFd(), POLLIN, 0},
    };
    // Without the descriptor of Stop() the loop has to look at `running_` from time to time.
    const int timeout = !stopFd_.IsValid() ? static_cast<int>(PAUSE.count()) : FOR_EVER;
    return poll(fds.data(), fds.size(), timeout) > 0 && fds[0].revents == 0;
}

void ChildErrorReader::Pause(std::chrono::milliseconds duration) const {
    const SteadyTime end = std::chrono::steady_clock::now() + duration;
    pollfd stop{stopFd_.Get(), POLLIN, 0};
    for (;;) {
        const auto rest =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        const int result = rest.count() > 0 ? poll(&stop, 1, static_cast<int>(rest.count())) : 0;
        if (result >= 0) {
            return;
        }
    }
}

void ChildErrorReader::ReadChildErrInfo() {
    const int fd = ProcMgrEnv::GetInstance().GetChildErrorReadFd();
    if (fd == -1) {
        return;
    }
    std::array<char, BUFFER_SIZE> text{};
    const ssize_t size = read(fd, text.data(), text.size() - 1);
    if (size == -1) {
        ProcMgrLog(LOG_WARNING, "PROCMGR: pm read anonymous pipe failed, errno=%d", errno);
    } else if (size > 0) {
        ProcMgrLog(LOG_WARNING, "pm receive child process errinfo size=%d, err: %s",
                   static_cast<int>(size), text.data());
    }
}

}  // namespace ProcMgr
