#include "main/common/log_queue.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <span>
#include <string_view>
#include <thread>
#include <utility>

#include "main/common/clock.h"
#include "main/common/log.h"
#include "main/common/log_ring.h"
#include "main/common/mutex.h"
#include "main/common/numbers.h"
#include "main/common/system_logger.h"
#include "main/common/threads.h"

namespace ProcMgr {
namespace {

constexpr const char* KERNEL_LOG = "/dev/kmsg";
constexpr size_t SYSTEM_RING = size_t{1} << 20;
constexpr size_t KERNEL_RING = size_t{256} << 10;
// System loggers cut longer lines.
constexpr size_t LINE_MAX_LENGTH = 8192;
// Buffer size, in bytes, of the line that reports the number of dropped lines.
constexpr size_t COUNT_LINE_LENGTH = 256;
constexpr size_t STAMP_LENGTH = sizeof("Mmm dd hh:mm:ss") - 1;
// The lines of services may take up so many bytes of the ring.
constexpr size_t SERVICE_SHARE = SYSTEM_RING / 2;
// The longest name of a service in the log; a longer one is cut.
constexpr size_t NAME_MAX_LENGTH = 127;
constexpr size_t BATCH = 64;
// After a line the thread stays awake for this time: in a burst of lines the logging threads then
// do not have to wake it for each.
constexpr std::chrono::milliseconds BURST_PAUSE{1};
// The pause after the first attempt to reach a logger that is absent. Each further pause is twice
// as long, up to the maximum.
constexpr std::chrono::milliseconds LOGGER_PAUSE{100};
constexpr std::chrono::milliseconds LOGGER_PAUSE_MAX{3200};
// While the logger's path does not exist LookForLogger() looks for it: each further pause is four
// times as long, up to this maximum.
constexpr std::chrono::milliseconds MISSING_PAUSE_MAX{6400};
// The longest single wait for a logger that has no room.
constexpr std::chrono::milliseconds ROOM_PATIENCE{20};
// The time in seconds for which a line waits for a logger that is absent, for example at early
// boot.
constexpr uint32_t ABSENCE_MAX = 10;

uint32_t CoarseSecond() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint32_t>(now.tv_sec);
}

class Writer {
public:
    void Add(LogSink sink, int level, const char* format, va_list arguments)
        PROCMGR_EXCLUDES(mutex_);
    bool AddOfService(const char* name, pid_t pid, std::string_view text) PROCMGR_EXCLUDES(mutex_);
    void Close(std::chrono::milliseconds patience) PROCMGR_EXCLUDES(mutex_);
    void LookForLogger() PROCMGR_EXCLUDES(mutex_);
    bool IsLoggerMissing() PROCMGR_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return isMissing_;
    }
    uint64_t CountDropped() const { return droppedInAll_; }
    // In a signal handler no lock can be taken: see LogRing::VisitInSignal().
    void WriteInSignal() PROCMGR_UNCHECKED;

private:
    enum class Progress { DONE, NO_ROOM, NO_LOGGER };

    LogRing& RingOf(LogSink sink) PROCMGR_REQUIRES(mutex_) {
        return sink == LogSink::KERNEL ? kernel_ : system_;
    }
    bool IsEmpty() const PROCMGR_REQUIRES(mutex_) { return system_.IsEmpty() && kernel_.IsEmpty(); }
    void Start() PROCMGR_REQUIRES(mutex_);
    // Return the length of the header.
    size_t WriteHeader(LogSink sink, int level, char* out) PROCMGR_REQUIRES(mutex_);
    void UpdateStamp(time_t now) PROCMGR_REQUIRES(mutex_);
    size_t WriteSystemHeader(int level, char* out) PROCMGR_REQUIRES(mutex_) {
        return WriteSyslogHeader(LOG_USER | level, PROCMGR_NAME, pid_, out);
    }
    size_t WriteSyslogHeader(int priority, std::string_view name, pid_t pid, char* out)
        PROCMGR_REQUIRES(mutex_);
    void Format(LogSink sink, int level, const char* format, va_list arguments)
        PROCMGR_REQUIRES(mutex_);
    bool FormatOfService(const char* name, pid_t pid, std::string_view text)
        PROCMGR_REQUIRES(mutex_);

    // The operations of the log's thread.
    void Run() PROCMGR_EXCLUDES(mutex_);
    // Waits until there is something to write. True when the thread is to end.
    bool Rest(Progress progress) PROCMGR_EXCLUDES(mutex_);
    // Waits until an absent logger is to be asked again, or there is a line for the kernel.
    // `isMissing`: its path does not exist. `lock` holds mutex_.
    void WaitForLogger(UniqueLock& lock, bool isMissing) PROCMGR_REQUIRES(mutex_);
    void WriteKernelLines() PROCMGR_EXCLUDES(mutex_);
    Progress WriteSystemLines() PROCMGR_EXCLUDES(mutex_);
    // Fills batch_ with the oldest lines of a ring, at most `count`, and returns them.
    std::span<const std::string_view> TakeBatch(LogSink sink, size_t count = BATCH)
        PROCMGR_EXCLUDES(mutex_);
    static void WriteKernelLine(std::string_view line);
    void PopLines(LogSink sink, size_t count) PROCMGR_EXCLUDES(mutex_);
    void CountDrops(size_t count) PROCMGR_REQUIRES(mutex_) {
        dropped_ += count;
        droppedInAll_ += count;
    }
    // Drops the lines of the system ring that have waited too long for a logger.
    void DropStale() PROCMGR_EXCLUDES(mutex_);
    void ReportDropped() PROCMGR_EXCLUDES(mutex_);

    Mutex mutex_;
    Condition added_;
    // The bytes of a line that TakeBatch() has returned stay in place without the lock until
    // PopLines(): only the thread removes lines.
    LogRing system_ PROCMGR_GUARDED_BY(mutex_){SYSTEM_RING};
    LogRing kernel_ PROCMGR_GUARDED_BY(mutex_){KERNEL_RING};
    // Number of lines dropped for lack of room since the logger last accepted a line.
    uint64_t dropped_ PROCMGR_GUARDED_BY(mutex_) = 0;
    std::atomic<uint64_t> droppedInAll_{0};  // since the start of the process
    // The stamp of a line without its year, and the first second of its minute.
    std::array<char, STAMP_LENGTH + 1> stamp_ PROCMGR_GUARDED_BY(mutex_){};
    time_t stampMinute_ PROCMGR_GUARDED_BY(mutex_) = 0;
    pid_t pid_ PROCMGR_GUARDED_BY(mutex_) = 0;           // of the daemon
    bool isIdle_ PROCMGR_GUARDED_BY(mutex_) = false;     // the thread waits to be woken
    bool isMissing_ PROCMGR_GUARDED_BY(mutex_) = false;  // it waits for the logger's path
    bool isRunning_ PROCMGR_GUARDED_BY(mutex_) = false;
    bool isClosing_ PROCMGR_GUARDED_BY(mutex_) = false;
    SteadyTime closeBy_ PROCMGR_GUARDED_BY(mutex_){};
    std::thread thread_ PROCMGR_GUARDED_BY(mutex_);

    // Used by the log's thread, and by Close() once the thread has ended.
    SystemLogger logger_;
    std::chrono::milliseconds loggerPause_ = LOGGER_PAUSE;
    std::array<std::string_view, BATCH> batch_{};
};

// Never destroyed: threads of libraries may log until the process ends.
Writer& GetWriter() {
    static auto* writer = new Writer;
    return *writer;
}

void Writer::Add(LogSink sink, int level, const char* format, va_list arguments) {
    {
        const LockGuard lock(mutex_);
        if (!isRunning_) {
            Start();
        }
        Format(sink, level, format, arguments);
        // While the system logger is absent the thread sleeps until the next attempt to reach it,
        // or until there is a line for the kernel.
        if (!std::exchange(isIdle_, false) && sink != LogSink::KERNEL) {
            return;
        }
    }
    // Without the lock, because the thread takes it.
    added_.NotifyOne();
}

bool Writer::AddOfService(const char* name, pid_t pid, std::string_view text) {
    bool isAdded = false;
    {
        const LockGuard lock(mutex_);
        if (!isRunning_) {
            Start();
        }
        isAdded = FormatOfService(name, pid, text);
        if (!std::exchange(isIdle_, false)) {
            return isAdded;
        }
    }
    // Without the lock, because the thread takes it.
    added_.NotifyOne();
    return isAdded;
}

bool Writer::FormatOfService(const char* name, pid_t pid, std::string_view text) {
    char* line = system_.GetUsed() < SERVICE_SHARE ? system_.Reserve(LINE_MAX_LENGTH) : nullptr;
    if (line == nullptr) {
        ++dropped_;
        return false;
    }
    const size_t header = WriteSyslogHeader(LOG_DAEMON | LOG_INFO, name, pid, line);
    const size_t length = std::min(text.size(), LINE_MAX_LENGTH - header);
    std::memcpy(line + header, text.data(), length);
    system_.Commit(header + length, CoarseSecond(), true);
    return true;
}

void Writer::Format(LogSink sink, int level, const char* format, va_list arguments) {
    LogRing& ring = RingOf(sink);
    char* line = ring.Reserve(LINE_MAX_LENGTH);
    if (line == nullptr) {
        CountDrops(1);
        return;
    }
    const size_t header = WriteHeader(sink, level, line);
    const size_t room = LINE_MAX_LENGTH - header;
    const int length = std::vsnprintf(line + header, room, format, arguments);
    ring.Commit(header + std::min(static_cast<size_t>(std::max(length, 0)), room - 1),
                CoarseSecond());
}

size_t Writer::WriteHeader(LogSink sink, int level, char* out) {
    if (sink == LogSink::SYSTEM) {
        return WriteSystemHeader(level, out);
    }
    const int length = std::snprintf(out, LINE_MAX_LENGTH, "<%d> PROCMGR[%d] ", level, pid_);
    return static_cast<size_t>(std::max(length, 0));
}

// The C library looks for a change of the time zone in each call. Within a minute only the seconds
// change.
void Writer::UpdateStamp(time_t now) {
    constexpr time_t MINUTE = 60;
    if (stamp_[0] == '\0' || now < stampMinute_ || now - stampMinute_ >= MINUTE) {
        tm local{};
        localtime_r(&now, &local);
        strftime(stamp_.data(), stamp_.size(), "%h %e %T", &local);
        stampMinute_ = now - local.tm_sec;
    }
    const auto second = static_cast<int>(now - stampMinute_);
    char* const digits = stamp_.data() + STAMP_LENGTH - 2;
    digits[0] = static_cast<char>('0' + second / 10);
    digits[1] = static_cast<char>('0' + second % 10);
}

// "<PRI>Mmm dd hh:mm:ss NAME[PID]: ", as syslog() has it.
size_t Writer::WriteSyslogHeader(int priority, std::string_view name, pid_t pid, char* out) {
    UpdateStamp(time(nullptr));
    const Decimal priorityText(priority);
    const Decimal pidText(pid);
    char* end = out;
    for (const std::string_view part :
         {std::string_view("<"), priorityText.Get(), std::string_view(">"),
          std::string_view(stamp_.data()), std::string_view(" "), name.substr(0, NAME_MAX_LENGTH),
          std::string_view("["), pidText.Get(), std::string_view("]: ")}) {
        end = std::copy(part.begin(), part.end(), end);
    }
    return static_cast<size_t>(end - out);
}

void Writer::Start() {
    pid_ = getpid();
    try {
        thread_ = StartThread("log", [this] { Run(); });
        isRunning_ = true;
    } catch (const std::exception&) {
        // The next Add() tries again to start the thread.
    }
}

void Writer::Run() {
    bool isDone = false;
    while (!isDone) {
        WriteKernelLines();
        const Progress progress = WriteSystemLines();
        if (progress == Progress::NO_ROOM) {
            logger_.WaitForRoom(ROOM_PATIENCE);
        }
        isDone = Rest(progress);
    }
}

bool Writer::Rest(Progress progress) {
    const bool isMissing = progress == Progress::NO_LOGGER && logger_.IsMissing();
    UniqueLock lock(mutex_);
    const SteadyTime now = std::chrono::steady_clock::now();
    if (isClosing_) {
        return IsEmpty() || progress == Progress::NO_LOGGER || now >= closeBy_;
    }
    if (progress == Progress::NO_ROOM || !kernel_.IsEmpty()) {
        return false;
    }
    if (progress == Progress::NO_LOGGER) {
        WaitForLogger(lock, isMissing);
        return false;
    }
    if (IsEmpty()) {
        added_.WaitUntil(lock, now + BURST_PAUSE,
                         [this]() PROCMGR_REQUIRES(mutex_) { return isClosing_; });
    }
    if (IsEmpty()) {
        isIdle_ = true;
        added_.Wait(lock, [this]() PROCMGR_REQUIRES(mutex_) { return !isIdle_ || isClosing_; });
        isIdle_ = false;
    }
    return false;
}

void Writer::WaitForLogger(UniqueLock& lock, bool isMissing) {
    const auto pause = std::min(loggerPause_, isMissing ? MISSING_PAUSE_MAX : LOGGER_PAUSE_MAX);
    loggerPause_ = (isMissing ? 4 : 2) * pause;
    isMissing_ = isMissing;
    added_.WaitUntil(lock, std::chrono::steady_clock::now() + pause,
                     [&]() PROCMGR_REQUIRES(mutex_) {
                         return isMissing_ != isMissing || !kernel_.IsEmpty() || isClosing_;
                     });
    isMissing_ = false;
}

void Writer::LookForLogger() {
    if (!IsLoggerMissing() || !SystemLogger::IsPresent()) {
        return;
    }
    {
        const LockGuard lock(mutex_);
        isMissing_ = false;
    }
    added_.NotifyOne();
}

std::span<const std::string_view> Writer::TakeBatch(LogSink sink, size_t count) {
    const LockGuard lock(mutex_);
    const auto lines = std::span(batch_).first(count);
    return lines.first(RingOf(sink).Peek(lines));
}

void Writer::PopLines(LogSink sink, size_t count) {
    const LockGuard lock(mutex_);
    LogRing& ring = RingOf(sink);
    for (; count > 0; --count) {
        ring.Pop();
    }
}

// The kernel log is opened for each line, because the kernel limits the rate of lines of one
// descriptor.
void Writer::WriteKernelLines() {
    MayWait("the kernel log");
    const auto lines = TakeBatch(LogSink::KERNEL);
    for (const std::string_view line : lines) {
        WriteKernelLine(line);
    }
    PopLines(LogSink::KERNEL, lines.size());
}

void Writer::WriteKernelLine(std::string_view line) {
    const int fd = open(KERNEL_LOG, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd >= 0) {
        [[maybe_unused]] const ssize_t written = write(fd, line.data(), line.size());
        close(fd);
    }
}

Writer::Progress Writer::WriteSystemLines() {
    // One line shows whether an absent logger has come.
    const auto lines = TakeBatch(LogSink::SYSTEM, logger_.IsConnected() ? BATCH : 1);
    size_t sent = 0;
    SystemLogger::Sent result = SystemLogger::Sent::YES;
    while (sent < lines.size() && result == SystemLogger::Sent::YES) {
        result = logger_.Send(lines[sent]);
        sent += result == SystemLogger::Sent::YES ? 1 : 0;
    }
    PopLines(LogSink::SYSTEM, sent);
    if (sent > 0) {
        loggerPause_ = LOGGER_PAUSE;
        ReportDropped();
    }
    if (result == SystemLogger::Sent::YES) {
        return Progress::DONE;
    }
    if (result == SystemLogger::Sent::NO_ROOM) {
        return Progress::NO_ROOM;
    }
    DropStale();
    return Progress::NO_LOGGER;
}

void Writer::DropStale() {
    const LockGuard lock(mutex_);
    const uint32_t now = CoarseSecond();
    if (now >= ABSENCE_MAX) {
        CountDrops(system_.DropUpTo(now - ABSENCE_MAX));
    }
}

// Without room for the line the count is kept for the next attempt.
void Writer::ReportDropped() {
    const LockGuard lock(mutex_);
    char* line = dropped_ == 0 ? nullptr : system_.Reserve(COUNT_LINE_LENGTH);
    if (line == nullptr) {
        return;
    }
    const size_t header = WriteSystemHeader(LOG_WARNING, line);
    const int length = std::snprintf(line + header, COUNT_LINE_LENGTH - header,
                                     "PROCMGR: the system logger did not take %llu lines",
                                     static_cast<unsigned long long>(dropped_));
    system_.Commit(header + static_cast<size_t>(std::max(length, 0)), CoarseSecond());
    dropped_ = 0;
}

void Writer::Close(std::chrono::milliseconds patience) {
    std::thread thread;
    {
        const LockGuard lock(mutex_);
        isClosing_ = true;
        closeBy_ = std::chrono::steady_clock::now() + patience;
        thread.swap(thread_);
        added_.NotifyAll();
    }
    if (thread.joinable()) {
        thread.join();
    }
    const LockGuard lock(mutex_);
    isClosing_ = false;
    isRunning_ = false;
    logger_.Close();
}

// The lines of services last: the logger may have no room for all.
void Writer::WriteInSignal() {
    kernel_.VisitInSignal(false, WriteKernelLine);
    for (const bool isOfService : {false, true}) {
        system_.VisitInSignal(isOfService,
                              [this](std::string_view line) { logger_.SendInSignal(line); });
    }
}

}  // namespace

void LogQueue::Add(LogSink sink, int level, const char* format, va_list arguments) {
    GetWriter().Add(sink, level, format, arguments);
}

bool LogQueue::AddOfService(const char* name, pid_t pid, std::string_view text) {
    return GetWriter().AddOfService(name, pid, text);
}

void LogQueue::Close(std::chrono::milliseconds patience) {
    GetWriter().Close(patience);
}

void LogQueue::LookForLogger() {
    GetWriter().LookForLogger();
}

bool LogQueue::IsLoggerMissing() {
    return GetWriter().IsLoggerMissing();
}

uint64_t LogQueue::CountDropped() {
    return GetWriter().CountDropped();
}

void LogQueue::WriteInSignal() {
    GetWriter().WriteInSignal();
}

}  // namespace ProcMgr
