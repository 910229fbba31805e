// The functions of platform/power.h, and the thread that receives the commands of the machine's
// scripts on /run/muxa/power: `suspend` and `resume`, one in each packet. Each command is answered
// when its call has returned.
#include "platform/power.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/host/diagnostics.h"
#include "platform/host/unix_socket.h"
#include "wire/blocked_signals.h"
#include "wire/mutex.h"

namespace {

using PlatformHost::AcceptResult;
using PlatformHost::UniqueFd;
using Wire::LockGuard;

constexpr const char* SOCKET_PATH = "/run/muxa/power";
constexpr mode_t SOCKET_MODE = 0600;
constexpr int BACKLOG = 8;
constexpr size_t MAX_PEERS = 8;
// Milliseconds before the next attempt to accept when no descriptor was left.
constexpr int PAUSE = 100;
// More than the longest command: a packet that fills the buffer is not a command.
constexpr size_t PACKET_MAX = 16;

// The socket and its thread, from the registration to its end.
class PowerSocket {
public:
    PowerSocket(PowerCall suspend, PowerCall wakeUp)
        : suspend_(std::move(suspend)), wakeUp_(std::move(wakeUp)) {}

    // Returns 0 or a negative errno.
    int32_t Start();
    // No call begins any more. Returns false while a call runs.
    bool Stop();
    // Waits for the end of the thread; to be called after a Stop that returned true.
    void Join() { thread_.join(); }

private:
    int32_t StartThread();
    void Run();
    std::vector<pollfd> MakeWaits() const;
    void Accept();
    // Returns false when the connection has ended.
    bool Serve(int peer);
    // Returns false, without a call, when the registration has ended.
    bool Call(const PowerCall& call);
    bool IsStopped();

    const PowerCall suspend_;
    const PowerCall wakeUp_;
    PlatformHost::BoundSocket listener_;
    UniqueFd wake_;
    std::vector<UniqueFd> peers_;  // used by the thread only
    bool isExhausted_ = false;     // no descriptor was left for a peer; used by the thread only
    std::thread thread_;

    Wire::Mutex lock_;
    bool isStopped_ PROCMGR_GUARDED_BY(lock_) = false;
    bool isCalling_ PROCMGR_GUARDED_BY(lock_) = false;
};

int32_t PowerSocket::Start() {
    wake_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_.IsValid()) {
        return -errno;
    }
    int32_t result = PlatformHost::MakeMessagingDirectories();
    result = result == 0
                 ? listener_.Bind(SOCKET_PATH, SOCKET_MODE, PlatformHost::BoundSocket::NO_GROUP)
                 : result;
    result = result == 0 ? listener_.Listen(BACKLOG) : result;
    return result == 0 ? StartThread() : result;
}

int32_t PowerSocket::StartThread() {
    const Wire::BlockedSignals blocked;  // the new thread inherits the mask
    try {
        thread_ = std::thread(&PowerSocket::Run, this);
    } catch (const std::system_error& error) {
        return -error.code().value();
    }
    return 0;
}

bool PowerSocket::Stop() {
    const LockGuard guard(lock_);
    isStopped_ = true;
    eventfd_write(wake_.Get(), 1);
    return !isCalling_;
}

bool PowerSocket::IsStopped() {
    const LockGuard guard(lock_);
    return isStopped_;
}

void PowerSocket::Run() {
    pthread_setname_np(pthread_self(), "power");
    while (!IsStopped()) {
        std::vector<pollfd> waits = MakeWaits();
        poll(waits.data(), waits.size(), isExhausted_ ? PAUSE : -1);
        isExhausted_ = false;
        std::vector<UniqueFd> left;
        for (size_t i = 0; i < peers_.size(); ++i) {
            if (waits[i].revents == 0 || Serve(peers_[i].Get())) {
                left.push_back(std::move(peers_[i]));
            }
        }
        peers_ = std::move(left);
        if (waits.back().revents != 0) {
            Accept();
        }
    }
}

// Returns the entries for poll(): the peers in their order, the descriptor that stops the thread,
// and the listener; the listener's entry is empty while no peer can be accepted.
std::vector<pollfd> PowerSocket::MakeWaits() const {
    std::vector<pollfd> waits;
    for (const UniqueFd& peer : peers_) {
        waits.push_back({peer.Get(), POLLIN, 0});
    }
    waits.push_back({wake_.Get(), POLLIN, 0});
    const bool isOpen = peers_.size() < MAX_PEERS && !isExhausted_;
    waits.push_back({isOpen ? listener_.Fd() : -1, POLLIN, 0});
    return waits;
}

void PowerSocket::Accept() {
    PlatformHost::AcceptedPeer peer;
    const AcceptResult result = AcceptPeer(listener_.Fd(), peer);
    isExhausted_ = result == AcceptResult::EXHAUSTED;
    // The mode of the socket does not keep out a process of another user with a capability.
    if (result == AcceptResult::ACCEPTED && peer.credentials.uid == 0) {
        peers_.push_back(std::move(peer.socket));
    }
}

bool PowerSocket::Serve(int peer) {
    std::array<char, PACKET_MAX> packet{};
    const ssize_t length = recv(peer, packet.data(), packet.size(), MSG_DONTWAIT);
    if (length <= 0) {
        return length < 0 && (errno == EAGAIN || errno == EINTR);
    }
    const std::string_view word(packet.data(), static_cast<size_t>(length));
    const bool isWord = word == "suspend" || word == "resume";
    if (isWord && !Call(word == "suspend" ? suspend_ : wakeUp_)) {
        return false;
    }
    const std::string_view answer = isWord ? "ok" : "unknown";
    // Does not wait for a peer that does not read its answers.
    return send(peer, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

bool PowerSocket::Call(const PowerCall& call) {
    {
        const LockGuard guard(lock_);
        if (isStopped_) {
            return false;
        }
        isCalling_ = true;
    }
    try {
        call();
    } catch (const std::exception& error) {
        // A call that fails must not end the process.
        PlatformHost::WriteDiagnostic(LOG_ERR,
                                      std::string("power: a call failed, ") + error.what());
    }
    const LockGuard guard(lock_);
    isCalling_ = false;
    return true;
}

// The registration of the process.
struct Slot {
    Wire::Mutex lock;
    std::unique_ptr<PowerSocket> socket PROCMGR_GUARDED_BY(lock);
};

// Never destroyed: the thread may still run while the process exits.
Slot& GetSlot() {
    static auto* const slot = new Slot;
    return *slot;
}

}  // namespace

int32_t RegisterPowerCalls(PowerCall suspend, PowerCall wakeUp) {
    if (!suspend || !wakeUp) {
        return -EINVAL;
    }
    Slot& slot = GetSlot();
    const LockGuard guard(slot.lock);
    if (slot.socket != nullptr) {
        return -EEXIST;
    }
    auto socket = std::make_unique<PowerSocket>(std::move(suspend), std::move(wakeUp));
    const int32_t result = socket->Start();
    if (result == 0) {
        slot.socket = std::move(socket);
    }
    return result;
}

int32_t UnregisterPowerCalls() {
    std::unique_ptr<PowerSocket> ended;
    {
        Slot& slot = GetSlot();
        const LockGuard guard(slot.lock);
        if (slot.socket == nullptr) {
            return 0;
        }
        if (!slot.socket->Stop()) {
            return -EBUSY;
        }
        ended = std::move(slot.socket);
    }
    ended->Join();
    return 0;
}
