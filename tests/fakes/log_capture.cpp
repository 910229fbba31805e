// Replaces the daemon's own log queue.
#include "tests/fakes/log_capture.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "main/common/log_queue.h"

namespace ProcMgr::LogQueue {

void Add(LogSink /*sink*/, int level, const char* format, va_list arguments) {
    std::array<char, 8192> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    Fakes::LogCapture::Store().Add(0, {level, text.data()});
}

bool AddOfService(const char* name, pid_t pid, std::string_view text) {
    return Fakes::LogCapture::TakeOfService(std::string(name) + '[' + std::to_string(pid) +
                                            "]: " + std::string(text));
}

void Close(std::chrono::milliseconds /*patience*/) {}

void LookForLogger() {}

bool IsLoggerMissing() {
    return false;
}

uint64_t CountDropped() {
    return 0;
}

void WriteInSignal() {}

}  // namespace ProcMgr::LogQueue
