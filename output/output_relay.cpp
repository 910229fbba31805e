#include "output/output_relay.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <utility>

#include "main/common/log.h"

namespace ProcMgr::Output {
namespace {

constexpr size_t PIPES_MAX = 4096;
constexpr std::chrono::hours FOR_EVER{1};
// After a turn the thread sleeps for this many times the time that the turn has taken, so processes
// that write without a pause cost a quarter of a core at most, however many they are.
constexpr int PAUSE_FACTOR = 3;
constexpr std::chrono::milliseconds PAUSE_MIN{1};
constexpr std::chrono::milliseconds PAUSE_MAX{100};
// After a failure, for example for lack of memory.
constexpr std::chrono::milliseconds FAILURE_PAUSE{100};
// How long the thread reads on at the stop.
constexpr std::chrono::milliseconds STOP_PATIENCE{100};

// Half of the descriptors that the daemon may have: the other half is for all else that it does.
size_t FindPipesMax() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return PIPES_MAX;
    }
    return static_cast<size_t>(std::min<rlim_t>(limit.rlim_cur / 2, PIPES_MAX));
}

// One step of the thread. What has failed is done again in a later turn.
template <typename Step>
void Try(Step step) {
    try {
        step();
    } catch (const std::exception& error) {
        ProcMgrLog(LOG_ERR, "PROCMGR : output of services is lost, %s", error.what());
        SleepFor(FAILURE_PAUSE);
    }
}

}  // namespace

OutputRelay::OutputRelay() : pipesMax_(FindPipesMax()) {}

OutputTarget OutputRelay::Prepare(const std::string& service, const OutputConfig& config,
                                  uid_t user) {
    records_.SetOutput(service, config);
    if (config.kind == OutputKind::INHERIT) {
        return {};
    }
    if (config.kind == OutputKind::DISCARD) {
        return Discard(service);
    }
    OutputTarget target = MakePipe(service, config);
    if (!target.writeEnd.IsValid()) {
        ProcMgrLog(LOG_ERR, "PROCMGR : the output of %s is lost, no pipe for it, errno=%d",
                   service.c_str(), errno);
        return Discard(service);
    }
    // A pipe belongs to root otherwise, and /dev/stdout of another user could not be opened.
    [[maybe_unused]] const int owned = fchown(target.writeEnd.Get(), user, static_cast<gid_t>(-1));
    if (config.kind == OutputKind::FILE) {
        files_.Add(service, config, {});
    }
    return target;
}

OutputTarget OutputRelay::Discard(const std::string& service) {
    OutputTarget target;
    target.writeEnd = Wire::UniqueFd(open("/dev/null", O_WRONLY | O_CLOEXEC | O_NOCTTY));
    if (!target.writeEnd.IsValid()) {
        ProcMgrLog(LOG_ERR, "PROCMGR : %s has the output of the daemon, open /dev/null errno=%d",
                   service.c_str(), errno);
    }
    return target;
}

OutputTarget OutputRelay::MakePipe(const std::string& service, const OutputConfig& config) {
    ++pipes_;
    PipePlace place(&pipes_);
    if (pipes_ > pipesMax_) {
        errno = EMFILE;
        return {};
    }
    int ends[2] = {-1, -1};
    if (!Start() || pipe2(ends, O_CLOEXEC) != 0) {
        return {};
    }
    OutputTarget target;
    target.writeEnd = Wire::UniqueFd(ends[1]);
    OutputPipe pipe;
    pipe.place = std::move(place);
    pipe.readEnd = Wire::UniqueFd(ends[0]);
    pipe.service = service;
    pipe.config = config;
    // The process expects that its writes wait for room; the relay must not wait.
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    target.pipe.emplace(ends[0], std::move(pipe));
    return target;
}

bool OutputRelay::Start() {
    const LockGuard lock(mutex_);
    if (isStarted_ || isStopping_) {
        errno = ESHUTDOWN;
        return isStarted_ && !isStopping_;
    }
    try {
        wakeFd_ = Wire::UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!wakeFd_.IsValid()) {
            return false;
        }
        loop_ = std::make_unique<PipeLoop>(wakeFd_.Get(), records_, files_, dropped_);
        thread_.Start([this] { Run(); });
        isStarted_ = true;
    } catch (const std::exception&) {
        errno = EAGAIN;
    }
    return isStarted_;
}

void OutputRelay::Adopt(OutputTarget target, pid_t pid) {
    if (target.pipe.empty()) {
        return;
    }
    target.pipe.begin()->second.pid = pid;
    bool isWoken = false;
    {
        const LockGuard lock(mutex_);
        adopted_.merge(target.pipe);
        isWoken = std::exchange(isWoken_, true);
    }
    if (!isWoken) {
        Wake();
    }
}

void OutputRelay::Wake() const {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wakeFd_.Get(), &one, sizeof(one));
}

bool OutputRelay::TakeAdopted(OutputPipes& adopted) {
    const LockGuard lock(mutex_);
    adopted.swap(adopted_);
    isWoken_ = false;
    return isStopping_;
}

// The adopted pipes are also taken after a turn that has failed: it may have used up the wake-up
// for them.
void OutputRelay::Run() {
    bool isStopping = false;
    while (!isStopping) {
        Try([this] {
            const std::chrono::nanoseconds pause = PAUSE_FACTOR * loop_->Turn(FOR_EVER);
            SleepFor(std::clamp<std::chrono::nanoseconds>(pause, PAUSE_MIN, PAUSE_MAX));
        });
        OutputPipes adopted;
        isStopping = TakeAdopted(adopted);
        Try([&] { loop_->Add(std::move(adopted)); });
    }
    Drain();
}

void OutputRelay::Drain() {
    const SteadyTime end = std::chrono::steady_clock::now() + STOP_PATIENCE;
    try {
        while (loop_->Turn(std::chrono::milliseconds(0)) > std::chrono::nanoseconds(0) &&
               std::chrono::steady_clock::now() < end) {
        }
        loop_->Finish();
    } catch (const std::exception&) {
        // Nothing is left to be done.
    }
}

bool OutputRelay::Stop(SteadyTime end) {
    bool isStarted = false;
    {
        const LockGuard lock(mutex_);
        isStopping_ = true;
        isStarted = isStarted_;
    }
    if (!isStarted) {
        return true;
    }
    Wake();
    return thread_.Join(end) && files_.Stop(end);
}

}  // namespace ProcMgr::Output
