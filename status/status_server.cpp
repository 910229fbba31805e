#include "status/status_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <exception>
#include <utility>

#include "main/common/log.h"
#include "main/common/mutex.h"

namespace ProcMgr::Status {
namespace {

// The pause when the process has no descriptor for another client.
constexpr std::chrono::milliseconds EXHAUSTED_PAUSE{100};
// The number of clients that are accepted before the others are served, and the pause after so
// many.
constexpr int ACCEPTS_MAX = 32;
constexpr std::chrono::milliseconds FULL_PAUSE{10};
// After each turn nobody is accepted for this many times the processor time that it has used:
// clients that connect without pause, whatever they ask, cost a quarter of one core at most.
constexpr int ACCEPT_PAUSE_FACTOR = 4;
constexpr std::chrono::milliseconds ACCEPT_PAUSE_MAX{250};

// Nothing, with a log line, for an unknown group. Waits for the group database.
std::optional<gid_t> GroupOf(const std::string& name) {
    MayWait("the group database");
    const auto group = Wire::FindGroup(name);
    if (!group && !name.empty()) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : the group %s of the status endpoint is not found, only root may ask",
                   name.c_str());
    }
    return group;
}

// False, with a log line, on failure.
bool OpenAt(Wire::GroupSocket& socket, const std::string& path, std::optional<gid_t> group) {
    const char* failed = socket.Open(path, group);
    if (failed != nullptr) {
        ProcMgrLog(LOG_ERR, "PROCMGR : the status socket %s cannot be made, %s failed, errno=%d",
                   path.c_str(), failed, errno);
    }
    return failed == nullptr;
}

// The processor time that the calling thread has used.
std::chrono::nanoseconds ThreadTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

int MillisecondsUntil(SteadyTime time, SteadyTime now) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - now).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 60'000));
}

}  // namespace

void StatusServer::Start(std::string path, std::string group) {
    wake_ = Wire::UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_.IsValid()) {
        ProcMgrLog(LOG_ERR, "PROCMGR : the status endpoint is off, eventfd failed, errno=%d",
                   errno);
        return;
    }
    try {
        thread_.Start(
            [this, path = std::move(path), group = std::move(group)] { Run(path, group); });
    } catch (const std::exception& error) {
        ProcMgrLog(LOG_ERR, "PROCMGR : the status endpoint is off, %s", error.what());
    }
}

void StatusServer::Stop() {
    const uint64_t one = 1;
    if (wake_.IsValid()) {
        [[maybe_unused]] const ssize_t size = write(wake_.Get(), &one, sizeof(one));
    }
}

ServerCounters StatusServer::GetCounters() const {
    return {requests_, refused_, dropped_};
}

void StatusServer::Run(const std::string& path, const std::string& group) {
    bool isOver = true;
    try {
        isOver = !OpenAt(listener_, path, GroupOf(group));
    } catch (const std::exception& error) {
        ProcMgrLog(LOG_ERR, "PROCMGR : the status endpoint is off, %s", error.what());
    }
    while (!isOver) {
        isOver = RunOnce();
    }
    clients_.clear();
    listener_.Close();
}

bool StatusServer::RunOnce() try {
    if (Wait()) {
        return true;
    }
    const SteadyTime now = std::chrono::steady_clock::now();
    for (const auto& client : clients_) {
        client->CheckTime(now);
    }
    AnswerAll();
    RemoveOver();
    if (now >= sharedUntil_) {
        shared_.reset();
    }
    PauseAccepting();
    return false;
} catch (const std::exception& error) {
    // The memory is short: the clients have to ask again.
    ProcMgrLog(LOG_ERR, "PROCMGR : the clients of the status endpoint are dropped, %s",
               error.what());
    dropped_ += clients_.size();
    clients_.clear();
    return false;
}

// Waits for the next event or deadline and takes what has come. True when the thread is to end.
bool StatusServer::Wait() {
    constexpr size_t FIRST_CLIENT = 2;
    std::array<pollfd, FIRST_CLIENT + Wire::CLIENTS_MAX> events{};
    events[0] = {wake_.Get(), POLLIN, 0};
    const bool isExhausted = acceptFrom_ > std::chrono::steady_clock::now();
    events[1] = {isExhausted ? -1 : listener_.GetFd(), POLLIN, 0};
    const size_t count = clients_.size();
    for (size_t i = 0; i < count; ++i) {
        events[FIRST_CLIENT + i] = {clients_[i]->GetFd(), clients_[i]->GetEvents(), 0};
    }
    MayWait("a client of the status endpoint");
    const int result = poll(events.data(), FIRST_CLIENT + count, GetTimeout());
    hasEvents_ = result > 0;
    const SteadyTime now = std::chrono::steady_clock::now();
    if (result <= 0) {
        return false;
    }
    for (size_t i = 0; i < count; ++i) {
        clients_[i]->Handle(events[FIRST_CLIENT + i].revents, now);
    }
    if (events[1].revents != 0) {
        RemoveOver();
        Accept(now);
    }
    return events[0].revents != 0;
}

void StatusServer::Accept(SteadyTime now) {
    for (int i = 0; i < ACCEPTS_MAX; ++i) {
        Wire::UniqueFd socket = listener_.Accept();
        if (socket.IsValid()) {
            Admit(std::move(socket), now);
        } else if (errno != EINTR && errno != ECONNABORTED) {
            acceptFrom_ = errno == EAGAIN ? now : now + EXHAUSTED_PAUSE;
            return;
        }
    }
    acceptFrom_ = now + FULL_PAUSE;
}

void StatusServer::PauseAccepting() {
    const SteadyTime now = std::chrono::steady_clock::now();
    const auto used = ThreadTime();
    // The pauses add up: an answer is sent in several turns that follow each other at once.
    const SteadyTime paid = std::max(acceptFrom_, now) + ACCEPT_PAUSE_FACTOR * (used - used_);
    // A turn without events ends a pause and begins none.
    acceptFrom_ = hasEvents_ ? std::min<SteadyTime>(paid, now + ACCEPT_PAUSE_MAX) : acceptFrom_;
    used_ = used;
}

void StatusServer::Admit(Wire::UniqueFd socket, SteadyTime now) {
    std::vector<uid_t> users;
    for (const auto& client : clients_) {
        users.push_back(client->GetUser());
    }
    const std::optional<uid_t> user = listener_.PermittedUser(socket.Get());
    if (!user || !Wire::HasPlace(*user, users)) {
        ++refused_;
        return;
    }
    clients_.push_back(std::make_unique<Client>(std::move(socket), *user, now));
}

void StatusServer::RemoveOver() {
    std::erase_if(clients_, [this](const auto& client) {
        dropped_ += client->GetState() == Client::State::DROPPED ? 1 : 0;
        return client->IsOver();
    });
}

// The time until a client's deadline, until the next document may be made for one that waits, or
// until the shared document is given up.
int StatusServer::GetTimeout() const {
    const SteadyTime now = std::chrono::steady_clock::now();
    SteadyTime next = SteadyTime::max();
    if (shared_ != nullptr) {
        next = sharedUntil_;
    }
    if (acceptFrom_ > now) {
        next = std::min(next, acceptFrom_);
    }
    for (const auto& client : clients_) {
        next = std::min(next, client->GetDeadline());
        if (client->GetState() == Client::State::ASKING && MayMake()) {
            next = std::min(next, nextMake_);
        }
    }
    return next == SteadyTime::max() ? -1 : MillisecondsUntil(next, now);
}

}  // namespace ProcMgr::Status
