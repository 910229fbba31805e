#include "tests/support/syslog_sink.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <utility>

#include "tests/support/private_mounts.h"
#include "tests/support/raw_peer.h"
#include "wire/unique_fd.h"

namespace {

using ProcMgr::Tests::IsReadable;
using ProcMgr::Tests::SocketAddress;
namespace fs = std::filesystem;

constexpr const char* SOCKET_PATH = "/dev/log";
constexpr const char* MARKER_PATH = "/dev/.private-dev";
constexpr size_t MAX_DATAGRAM = 65536;

std::string ErrnoText(const std::string& what) {
    return what + ": " + strerror(errno);
}

// Mounts a private directory in memory over /dev, which may be shared with the machine. The usual
// devices are bind mounts of the real ones, because a container may forbid mknod.
void LayPrivateDev() {
    if (fs::exists(MARKER_PATH)) {
        return;
    }
    std::vector<std::pair<std::string, int>> devices;
    for (const char* path : {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom", "/dev/tty"}) {
        devices.emplace_back(path, open(path, O_PATH | O_CLOEXEC));
    }
    MountTmpfs("/dev");
    for (const auto& [path, original] : devices) {
        std::ofstream(path).flush();
        const std::string source = "/proc/self/fd/" + std::to_string(original);
        if (original >= 0 && mount(source.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            throw std::runtime_error(ErrnoText("bind " + path));
        }
        close(original);
    }
    fs::create_directory("/dev/shm");
    fs::create_symlink("/proc/self/fd", "/dev/fd");
    std::ofstream(MARKER_PATH).flush();
}

// Splits "<PRI>Mmm dd hh:mm:ss ident[pid]: text"; some writers leave out the time or the pid.
SyslogMessage ParseSyslogLine(std::string line) {
    static const std::regex head(
        R"(<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?(?:([^\s\[:]+)(?:\[(\d+)\])?: )?)");
    while (!line.empty() && (line.back() == '\n' || line.back() == '\0')) {
        line.pop_back();
    }
    SyslogMessage message;
    std::smatch parts;
    if (std::regex_search(line, parts, head, std::regex_constants::match_continuous)) {
        const int priority = std::stoi(parts[1]);
        message.level = LOG_PRI(priority);
        message.facility = priority & LOG_FACMASK;
        message.ident = parts[2];
        message.pid = parts[3].matched ? std::stoi(parts[3]) : 0;
        message.text = parts.suffix();
    } else {
        message.text = line;
    }
    return message;
}

}  // namespace

SyslogSink::SyslogSink() {
    if (!EnterPrivateMountNamespace()) {
        error_ = ErrnoText("no private mount namespace");
        return;
    }
    try {
        LayPrivateDev();
        Listen();
    } catch (const std::exception& failure) {
        error_ = failure.what();
        return;
    }
    closelog();  // closes a connection to the former logger
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
    if (fd_ >= 0) {
        close(fd_);
        unlink(SOCKET_PATH);
        closelog();
    }
}

void SyslogSink::Listen() {
    const sockaddr_un address = SocketAddress(SOCKET_PATH);
    unlink(SOCKET_PATH);  // left by a sink whose process was killed
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(SOCKET_PATH, 0666) != 0) {
        close(fd);
        throw std::runtime_error(ErrnoText("cannot listen on /dev/log"));
    }
    fd_ = fd;
}

void SyslogSink::Collect() {
    constexpr std::chrono::milliseconds STOP_CHECK{50};
    std::unique_lock lock(mutex_);
    while (!isStopping_) {
        lock.unlock();
        IsReadable(fd_, STOP_CHECK);
        lock.lock();
        changed_.wait(lock, [this] { return !isHeld_ || isStopping_; });
        DrainLocked();
    }
}

void SyslogSink::Hold() {
    const std::lock_guard lock(mutex_);
    isHeld_ = true;
    const Wire::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = SocketAddress(SOCKET_PATH);
    while (sendto(fd.Get(), "fill", 4, 0, reinterpret_cast<const sockaddr*>(&address),
                  sizeof(address)) > 0) {
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
         (length = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0;) {
        messages_.push_back(ParseSyslogLine({buffer.data(), static_cast<size_t>(length)}));
        changed_.notify_all();
    }
}

std::vector<SyslogMessage> SyslogSink::Messages() {
    const std::lock_guard lock(mutex_);
    DrainLocked();
    return messages_;
}

std::vector<std::string> SyslogSink::LinesAt(int level) {
    std::vector<std::string> lines;
    for (SyslogMessage& message : Messages()) {
        if (level == ANY_LEVEL || message.level == level) {
            lines.push_back(std::move(message.text));
        }
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
