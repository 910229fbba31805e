#include "output/pipe_loop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace ProcMgr::Output {
namespace {

// Until the kernel is asked again to watch a pipe that it has refused.
constexpr std::chrono::milliseconds WATCH_PAUSE{1000};
// How often a pipe that is given up is read: more than a usual pipe holds, and no end to a process
// that writes without a pause.
constexpr int LAST_READS_MAX = 32;

int MakeEpoll() {
    const int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
    }
    return fd;
}

bool Watch(int epoll, int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

PipeLoop::PipeLoop(int wakeFd, OutputRecords& records, FileWriter& files,
                   std::atomic<uint64_t>& dropped)
    : wakeFd_(wakeFd), records_(records), files_(files), dropped_(dropped), epoll_(MakeEpoll()) {
    if (!Watch(epoll_.Get(), wakeFd)) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

void PipeLoop::Add(OutputPipes pipes) {
    added_.merge(pipes);
    WatchAdded();
}

void PipeLoop::WatchAdded() {
    while (!added_.empty() && Watch(epoll_.Get(), added_.begin()->first)) {
        const auto place = pipes_.insert(added_.extract(added_.begin())).position;
        BeginFlow(*place);
    }
}

void PipeLoop::BeginFlow(const Pipe& pipe) {
    if (flows_.size() >= FLOWS_MAX) {
        std::erase_if(flows_, [](const auto& entry) {
            return entry.second.pipes.empty() && entry.second.leftOut == 0;
        });
    }
    Flow& flow = flows_[pipe.second.service];
    SetKind(flow, pipe.second.config.kind);
    flow.pipes.push_back(pipe.first);
    while (flow.pipes.size() > PIPES_OF_SERVICE_MAX) {
        CloseOldest(flow);
    }
}

void PipeLoop::CloseOldest(const Flow& flow) {
    const int oldest = flow.pipes.front();
    for (int i = 0; i < LAST_READS_MAX && Read(oldest); ++i) {
    }
    if (flow.pipes.front() == oldest) {
        Close(pipes_.find(oldest));
    }
}

int PipeLoop::TimeoutOf(std::chrono::milliseconds patience) const {
    using std::chrono::milliseconds;
    milliseconds timeout = added_.empty() ? patience : std::min(patience, WATCH_PAUSE);
    const SteadyTime now = std::chrono::steady_clock::now();
    const auto shorten = [&](SteadyTime due) {
        if (due != SteadyTime::max()) {
            const auto left = std::chrono::ceil<milliseconds>(due - now);
            timeout = std::clamp(left, milliseconds(0), timeout);
        }
    };
    shorten(flushes_.empty() ? SteadyTime::max() : flushes_.begin()->first);
    shorten(reports_.empty() ? SteadyTime::max() : reports_.begin()->first);
    shorten(files_.GetReminderTime());
    return static_cast<int>(timeout.count());
}

std::chrono::nanoseconds PipeLoop::Turn(std::chrono::milliseconds patience) {
    WatchAdded();
    std::array<epoll_event, EVENTS_MAX> events;
    const int count = epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()),
                                 TimeoutOf(patience));
    now_ = std::chrono::steady_clock::now();
    bool isAnyRead = false;
    for (int i = 0; i < count; ++i) {
        const int fd = events[static_cast<size_t>(i)].data.fd;
        if (fd == wakeFd_) {
            uint64_t ignored = 0;
            [[maybe_unused]] const ssize_t size = read(wakeFd_, &ignored, sizeof(ignored));
        } else {
            Read(fd);
            isAnyRead = true;
        }
    }
    FlushDue();
    ReportDue(now_);
    files_.Remind(now_);
    const auto taken = std::chrono::steady_clock::now() - now_;
    return isAnyRead ? std::max(taken, std::chrono::nanoseconds(1)) : std::chrono::nanoseconds(0);
}

bool PipeLoop::Read(int fd) {
    const auto pipe = pipes_.find(fd);
    if (pipe == pipes_.end()) {
        return false;
    }
    const ssize_t size = read(fd, buffer_.data(), buffer_.size());
    if (size > 0) {
        TakeBytes(*pipe, {buffer_.data(), static_cast<size_t>(size)});
    } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
        Close(pipe);
    }
    return size > 0;
}

// The end is taken out of the kernel's list because a child that has not executed its program yet
// may still have it open.
void PipeLoop::Close(OutputPipes::iterator pipe) {
    Flush(*pipe);
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, pipe->first, nullptr);
    std::erase(flows_[pipe->second.service].pipes, pipe->first);
    pipes_.erase(pipe);
}

void PipeLoop::Finish() {
    while (!pipes_.empty()) {
        Close(pipes_.begin());
    }
    added_.clear();
    ReportDue(SteadyTime::max());
}

}  // namespace ProcMgr::Output
