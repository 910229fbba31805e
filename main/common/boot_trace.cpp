#include "main/common/boot_trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "main/common/log.h"

namespace ProcMgr {
namespace {

constexpr const char* TRACE_PROBE = "/proc/bootdot/initblk";
constexpr const char* TRACE_FILE = "/proc/bootdot/setblk";
constexpr const char* TRACE_PREFIX = "procmgr";
constexpr const char* CONSOLE = "/dev/ttyAMA0";
constexpr std::array CONSOLE_POINTS = {POINT_MAIN, POINT_CONTINUE_INIT, POINT_ALL_STARTED};

#if defined(__aarch64__)
uint64_t CounterFrequency() {
    uint64_t frequency = 0;
    asm volatile("mrs %0, cntfrq_el0" : "=r"(frequency));
    return frequency;
}
#else
constexpr uint64_t NANOSECONDS = 1'000'000'000;

uint64_t CounterFrequency() {
    return NANOSECONDS;
}
#endif

// Writes `text` to an existing file or device. Non-blocking, because a console without a reader
// must not stop the boot. False when the file cannot be opened.
bool WriteWhole(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    [[maybe_unused]] const ssize_t written = write(fd, text.data(), text.size());
    close(fd);
    return true;
}

void EchoOnConsole(uint32_t code) {
    std::array<char, 24> point{};
    std::snprintf(point.data(), point.size(), "pm=0x%x\n", code);
    if (!WriteWhole(CONSOLE, BootStrace(BOOT_TRACE_TAG) + point.data())) {
        ProcMgrLog(LOG_WARNING, "procmgr open file=%s fail", CONSOLE);
    }
}

}  // namespace

uint64_t ReadBootCounter() {
#if defined(__aarch64__)
    uint64_t counter = 0;
    asm volatile("isb; mrs %0, cntvct_el0" : "=r"(counter)::"memory");
    return counter;
#else
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * NANOSECONDS + static_cast<uint64_t>(now.tv_nsec);
#endif
}

std::string BootStrace(const std::string& tag) {
    return BootStraceAt(ReadBootCounter(), tag);
}

std::string BootStraceAt(uint64_t counter, const std::string& tag) {
    std::array<char, 40> seconds{};
    std::snprintf(seconds.data(), seconds.size(), "[%fs]",
                  static_cast<double>(counter) / static_cast<double>(CounterFrequency()));
    return std::string(seconds.data()) + "[BOOT_TRACE][" + tag + "]";
}

void WriteBootTracePoint(uint32_t code) {
    static const bool hasTrace = access(TRACE_PROBE, F_OK) == 0;
    if (hasTrace) {
        WriteWhole(TRACE_FILE, std::string(TRACE_PREFIX) + "," + std::to_string(code));
    }
    if (std::find(CONSOLE_POINTS.begin(), CONSOLE_POINTS.end(), code) != CONSOLE_POINTS.end()) {
        EchoOnConsole(code);
    }
}

}  // namespace ProcMgr
