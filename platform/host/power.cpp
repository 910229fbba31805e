// The calls of platform/power.h, and the one thread that takes the words of the machine's scripts
// on /run/muxa/power: `suspend` and `resume`, one a packet, each answered when its call has
// returned.
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
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/host/diagnostics.h"
#include "platform/host/muxa_socket.h"
#include "platform/host/unix_socket.h"
#include "wire/blocked_signals.h"

namespace {

using PlatformHost::UniqueFd;

constexpr const char* SOCKET_PATH = "/run/muxa/power";
constexpr mode_t SOCKET_MODE = 0600;
constexpr int BACKLOG = 8;
constexpr size_t MAX_PEERS = 8;
// Until descriptors are tried for again, in milliseconds.
constexpr int PAUSE = 100;
// The longest word and one more: what fills it is no word.
constexpr size_t PACKET_MAX = 16;

// The socket and its thread, for the time of one registration.
class PowerSocket {
public:
    PowerSocket(PowerCall suspend, PowerCall wakeUp)
        : suspend_(std::move(suspend)), wakeUp_(std::move(wakeUp)) {}

    // Returns 0 or a negative errno.
    int32_t Start();
    // From then on no call begins. False while one runs.
    bool Stop();
    // After a Stop that was true.
    void Join() { thread_.join(); }

private:
    int32_t StartThread();
    void Run();
    std::vector<pollfd> MakeWaits() const;
    void Accept();
    // False when the connection is over.
    bool Serve(int peer);
    // False when it has not been made, as the registration has ended.
    bool Call(const PowerCall& call);
    bool IsStopped();

    const PowerCall suspend_;
    const PowerCall wakeUp_;
    PlatformHost::BoundSocket listener_;
    UniqueFd wake_;
    std::vector<UniqueFd> peers_;  // the thread's
    bool isExhausted_ = false;     // no descriptor for a peer; the thread's
    std::thread thread_;

    std::mutex lock_;  // guards the fields below
    bool isStopped_ = false;
    bool isCalling_ = false;
};

int32_t PowerSocket::Start() {
    wake_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_.IsValid()) {
        return -errno;
    }
    int32_t result = PlatformHost::MakeMuxaDirectories();
    if (result == 0) {
        result = listener_.Bind(SOCK_SEQPACKET, SOCKET_PATH, SOCKET_MODE, static_cast<gid_t>(-1));
    }
    if (result < 0) {
        return result;
    }
    return listen(listener_.Fd(), BACKLOG) == 0 ? StartThread() : -errno;
}

int32_t PowerSocket::StartThread() {
    const Wire::BlockedSignals blocked;  // while the thread is made
    try {
        thread_ = std::thread(&PowerSocket::Run, this);
    } catch (const std::system_error& error) {
        return -error.code().value();
    }
    return 0;
}

bool PowerSocket::Stop() {
    const std::lock_guard guard(lock_);
    isStopped_ = true;
    eventfd_write(wake_.Get(), 1);
    return !isCalling_;
}

bool PowerSocket::IsStopped() {
    const std::lock_guard guard(lock_);
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

// The peers in their order, what stops the thread, and the listener while a peer can be taken.
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
    const PlatformHost::AcceptResult result = AcceptMuxaPeer(listener_.Fd(), peer);
    isExhausted_ = result == PlatformHost::AcceptResult::EXHAUSTED;
    // Others are kept out by the mode of the socket, but for those with a capability.
    if (result == PlatformHost::AcceptResult::ACCEPTED && peer.credentials.uid == 0) {
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
    // A peer that asks and does not read is not waited for.
    return send(peer, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

bool PowerSocket::Call(const PowerCall& call) {
    {
        const std::lock_guard guard(lock_);
        if (isStopped_) {
            return false;
        }
        isCalling_ = true;
    }
    try {
        call();
    } catch (const std::exception& error) {
        // A call that fails must not take the process down.
        ProcMgr::WriteDiagnostic(LOG_ERR, std::string("power: a call failed, ") + error.what());
    }
    const std::lock_guard guard(lock_);
    isCalling_ = false;
    return true;
}

// The process's registration.
struct Slot {
    std::mutex lock;  // guards socket
    std::unique_ptr<PowerSocket> socket;
};

// Never destroyed: the thread may still run while the process exits.
Slot& GetSlot() {
    static Slot* const slot = new Slot;
    return *slot;
}

}  // namespace

int32_t RegisterPowerCalls(PowerCall suspend, PowerCall wakeUp) {
    if (!suspend || !wakeUp) {
        return -EINVAL;
    }
    Slot& slot = GetSlot();
    const std::lock_guard guard(slot.lock);
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
    Slot& slot = GetSlot();
    const std::lock_guard guard(slot.lock);
    if (slot.socket == nullptr) {
        return 0;
    }
    if (!slot.socket->Stop()) {
        return -EBUSY;
    }
    slot.socket->Join();
    slot.socket.reset();
    return 0;
}
