#include "tests/support/syslog_sink.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <map>
#include <regex>

#include "tests/support/files.h"
#include "tests/support/private_mounts.h"
#include "tests/support/raw_peer.h"

namespace {

using ProcMgr::Tests::IsReadable;
using Wire::UniqueFd;

constexpr const char* SOCKET_PATH = "/dev/log";
const sockaddr_un ADDRESS = ProcMgr::Tests::SocketAddress(SOCKET_PATH);
constexpr size_t MAX_DATAGRAM = 65536;

UniqueFd MakeSocket() {
    return UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// Mounts a private directory in memory over /dev, which may be shared with the machine. The usual
// devices are bind mounts of the real ones, because a container may forbid mknod.
void LayPrivateDev() {
    std::map<std::string, UniqueFd> devices;
    for (const char* path : {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom", "/dev/tty"}) {
        devices.emplace(path, open(path, O_PATH | O_CLOEXEC));
    }
    MountTmpfs("/dev");
    for (const auto& [path, original] : devices) {
        ProcMgr::Tests::WriteFile(path, "");
        Require(
            !original.IsValid() || Mount("/proc/self/fd/" + std::to_string(original.Get()), path),
            "bind " + path);
    }
}

// Splits "<PRI>Mmm dd hh:mm:ss ident[pid]: text". A line of another form is text only.
SyslogMessage ParseSyslogLine(const std::string& line) {
    static const std::regex form(R"(<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\s\[:]+)\[(\d+)\]: )");
    std::smatch parts;
    if (!std::regex_search(line, parts, form, std::regex_constants::match_continuous)) {
        return {.text = line};
    }
    const int priority = std::stoi(parts[1]);
    return {LOG_PRI(priority), priority & LOG_FACMASK, parts[2], std::stoi(parts[3]),
            parts.suffix()};
}

}  // namespace

SyslogSink::SyslogSink() {
    LayPrivateDev();
    fd_ = MakeSocket();
    Require(bind(fd_.Get(), reinterpret_cast<const sockaddr*>(&ADDRESS), sizeof(ADDRESS)) == 0 &&
                chmod(SOCKET_PATH, 0666) == 0,
            "listen on /dev/log");
    thread_ = std::thread([this] { Collect(); });
}

SyslogSink::~SyslogSink() {
    {
        const std::lock_guard lock(mutex_);
        isStopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void SyslogSink::Collect() {
    constexpr std::chrono::milliseconds STOP_CHECK{50};
    std::unique_lock lock(mutex_);
    while (!isStopping_) {
        lock.unlock();
        IsReadable(fd_.Get(), STOP_CHECK);
        lock.lock();
        changed_.wait(lock, [this] { return !isHeld_ || isStopping_; });
        DrainLocked();
    }
}

void SyslogSink::Hold() {
    const std::lock_guard lock(mutex_);
    isHeld_ = true;
    const UniqueFd fd = MakeSocket();
    while (sendto(fd.Get(), "fill", 4, 0, reinterpret_cast<const sockaddr*>(&ADDRESS),
                  sizeof(ADDRESS)) > 0) {
    }
}

void SyslogSink::Release() {
    const std::lock_guard lock(mutex_);
    isHeld_ = false;
    changed_.notify_all();
}

// Called by the functions that read lines as well as by the thread: a line that was sent before
// such a call is returned by it even if the thread has not run.
void SyslogSink::DrainLocked() {
    static std::array<char, MAX_DATAGRAM> buffer;
    for (ssize_t length = 0;
         (length = recv(fd_.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0;) {
        messages_.push_back(ParseSyslogLine({buffer.data(), static_cast<size_t>(length)}));
        changed_.notify_all();
    }
}

std::vector<SyslogMessage> SyslogSink::Messages() {
    const std::lock_guard lock(mutex_);
    DrainLocked();
    return messages_;
}

std::vector<std::string> SyslogSink::Lines() {
    std::vector<std::string> lines;
    for (const SyslogMessage& message : Messages()) {
        lines.push_back(message.text);
    }
    return lines;
}

size_t SyslogSink::Count(std::string_view part) {
    const std::vector<std::string> lines = Lines();
    return static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(),
        [part](const std::string& line) { return line.find(part) != std::string::npos; }));
}

bool SyslogSink::WaitFor(std::string_view part, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    DrainLocked();
    return changed_.wait_for(lock, timeout, [&] {
        return std::any_of(messages_.begin(), messages_.end(), [part](const auto& message) {
            return message.text.find(part) != std::string::npos;
        });
    });
}

void SyslogSink::Clear() {
    const std::lock_guard lock(mutex_);
    DrainLocked();
    messages_.clear();
}
