#include "tests/fakes/log_capture.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <ostream>

#include "main/common/log_queue.h"
#include "tests/fakes/recorder.h"

namespace ProcMgr::Fakes {

namespace {

using Lines = Recorder<int, LogLine>;

// Never destroyed: a thread may still log at the end of the process.
Lines& Store() {
    constexpr size_t LINES_MAX = 20000;
    static auto* const lines = new Lines(LINES_MAX);
    return *lines;
}

auto IsLine(int level, const std::string& text) {
    return [=](const LogLine& line) { return line == LogLine{level, text}; };
}

auto HasPart(int level, const std::string& part) {
    return [=](const LogLine& line) {
        return line.level == level && line.text.find(part) != std::string::npos;
    };
}

}  // namespace

std::vector<LogLine> LogCapture::Lines() {
    return Store().Entries();
}

void LogCapture::Clear() {
    Store().Reset();
}

size_t LogCapture::Count(int level, const std::string& text) {
    return Store().CountIf(IsLine(level, text));
}

bool LogCapture::ContainsPart(int level, const std::string& part) {
    return Store().CountIf(HasPart(level, part)) > 0;
}

bool LogCapture::WaitFor(int level, const std::string& text, std::chrono::milliseconds timeout) {
    return Store().WaitFor(IsLine(level, text), timeout);
}

bool LogCapture::WaitForPart(int level, const std::string& part,
                             std::chrono::milliseconds timeout) {
    return Store().WaitFor(HasPart(level, part), timeout);
}

void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line.level << ": " << line.text;
}

}  // namespace ProcMgr::Fakes

// The functions of main/common/log_queue.h: this file is linked in place of log_queue.cpp and
// stores the lines instead of writing them.
namespace ProcMgr::LogQueue {

void Add(LogSink /*sink*/, int level, const char* format, va_list arguments) {
    std::array<char, 8192> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    Fakes::Store().Add(0, {level, text.data()});
}

void Close(std::chrono::milliseconds /*patience*/) {}

void WriteInSignal() {}

}  // namespace ProcMgr::LogQueue
