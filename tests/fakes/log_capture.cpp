#include "tests/fakes/log_capture.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <ostream>
#include <utility>

#include "main/common/log_queue.h"

namespace ProcMgr::Fakes {

namespace {

constexpr size_t LINES_MAX = 20000;

struct Store {
    std::mutex mutex;
    std::condition_variable added;
    std::deque<LogLine> lines;  // guarded by mutex
};

// Never destroyed: a thread may still log at the end of the process.
Store& GetStore() {
    static auto* const store = new Store;
    return *store;
}

using Predicate = std::function<bool(const LogLine&)>;

Predicate IsLine(int level, const std::string& text) {
    return [=](const LogLine& line) { return line == LogLine{level, text}; };
}

Predicate HasPart(int level, const std::string& part) {
    return [=](const LogLine& line) {
        return line.level == level && line.text.find(part) != std::string::npos;
    };
}

size_t CountIf(const Predicate& predicate) {
    Store& store = GetStore();
    const std::lock_guard lock(store.mutex);
    return static_cast<size_t>(std::count_if(store.lines.begin(), store.lines.end(), predicate));
}

bool Wait(const Predicate& predicate, std::chrono::milliseconds timeout) {
    Store& store = GetStore();
    std::unique_lock lock(store.mutex);
    return store.added.wait_for(lock, timeout, [&] {
        return std::any_of(store.lines.begin(), store.lines.end(), predicate);
    });
}

void Add(int level, std::string text) {
    Store& store = GetStore();
    {
        const std::lock_guard lock(store.mutex);
        store.lines.push_back({level, std::move(text)});
        if (store.lines.size() > LINES_MAX) {
            store.lines.pop_front();
        }
    }
    store.added.notify_all();
}

}  // namespace

std::vector<LogLine> LogCapture::Lines() {
    Store& store = GetStore();
    const std::lock_guard lock(store.mutex);
    return {store.lines.begin(), store.lines.end()};
}

void LogCapture::Clear() {
    Store& store = GetStore();
    const std::lock_guard lock(store.mutex);
    store.lines.clear();
}

bool LogCapture::Contains(int level, const std::string& text) {
    return Count(level, text) > 0;
}

size_t LogCapture::Count(int level, const std::string& text) {
    return CountIf(IsLine(level, text));
}

bool LogCapture::ContainsPart(int level, const std::string& part) {
    return CountIf(HasPart(level, part)) > 0;
}

bool LogCapture::WaitFor(int level, const std::string& text, std::chrono::milliseconds timeout) {
    return Wait(IsLine(level, text), timeout);
}

bool LogCapture::WaitForPart(int level, const std::string& part,
                             std::chrono::milliseconds timeout) {
    return Wait(HasPart(level, part), timeout);
}

void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line.level << ": " << line.text;
}

}  // namespace ProcMgr::Fakes

// In place of the daemon's own.
namespace ProcMgr::LogQueue {

void Add(LogSink /*sink*/, int level, const char* format, va_list arguments) {
    std::array<char, 8192> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    Fakes::Add(level, text.data());
}

void Close(std::chrono::milliseconds /*patience*/) {}

void WriteInSignal() {}

}  // namespace ProcMgr::LogQueue
