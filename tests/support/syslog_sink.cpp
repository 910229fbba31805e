#include "tests/support/syslog_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "tests/support/private_mounts.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* SOCKET_PATH = "/dev/log";
constexpr const char* MARKER_PATH = "/dev/.private-dev";
constexpr size_t MAX_DATAGRAM = 65536;

std::string ErrnoText(const std::string& what) {
    return what + ": " + strerror(errno);
}

// The real /dev may be shared with the machine, so a socket must not be put there: a small
// directory in memory is laid over it. The devices that programs need are bound and not made anew,
// because a container may forbid mknod.
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

template <typename Number>
bool TakeNumber(std::string_view& line, Number& number) {
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    if (error != std::errc()) {
        return false;
    }
    line.remove_prefix(static_cast<size_t>(end - line.data()));
    return true;
}

// Splits "<PRI>Mmm dd hh:mm:ss ident[pid]: text"; some writers leave out the time or the pid.
SyslogMessage ParseSyslogLine(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\0')) {
        line.remove_suffix(1);
    }
    SyslogMessage message;
    message.text = line;
    int priority = 0;
    if (!line.starts_with('<')) {
        return message;
    }
    line.remove_prefix(1);
    if (!TakeNumber(line, priority) || !line.starts_with('>')) {
        return message;
    }
    line.remove_prefix(1);
    message.level = LOG_PRI(priority);
    message.facility = priority & LOG_FACMASK;
    // "Mmm dd hh:mm:ss " of fixed width; other writers may leave it out.
    constexpr size_t STAMP = 16;
    if (line.size() >= STAMP && line[6] == ' ' && line[9] == ':' && line[12] == ':') {
        line.remove_prefix(STAMP);
    }
    message.text = line;
    const size_t colon = line.find(": ");
    std::string_view tag = line.substr(0, std::min(colon, line.size()));
    if (colon == std::string_view::npos || tag.find(' ') != std::string_view::npos) {
        return message;
    }
    message.text = line.substr(colon + 2);
    const size_t bracket = std::min(tag.find('['), tag.size());
    message.ident = tag.substr(0, bracket);
    tag.remove_prefix(std::min(bracket + 1, tag.size()));
    TakeNumber(tag, message.pid);
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
        if (!Listen()) {
            return;
        }
    } catch (const std::exception& failure) {
        error_ = failure.what();
        return;
    }
    closelog();  // a connection to the former logger would stay in use
    thread_ = std::thread([this] { Collect(); });
}

SyslogSink::~SyslogSink() {
    stop_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    if (fd_ >= 0) {
        close(fd_);
        unlink(SOCKET_PATH);
        closelog();
    }
}

bool SyslogSink::Listen() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, SOCKET_PATH, sizeof(address.sun_path) - 1);
    unlink(SOCKET_PATH);  // left by a sink whose process was killed
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(SOCKET_PATH, 0666) != 0) {
        error_ = ErrnoText("cannot listen on /dev/log");
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    fd_ = fd;
    return true;
}

void SyslogSink::Collect() {
    using std::chrono::steady_clock;
    for (auto last = steady_clock::now(); !stop_;) {
        pollfd readable{fd_, POLLIN, 0};
        constexpr int STOP_CHECK_MS = 50;
        constexpr std::chrono::milliseconds PAUSE_CHECK{10};
        const bool any = poll(&readable, 1, STOP_CHECK_MS) > 0;
        std::unique_lock<std::mutex> lock(mutex_);
        if (pause_.count() > 0 && steady_clock::now() - last < pause_) {
            lock.unlock();
            std::this_thread::sleep_for(PAUSE_CHECK);
        } else if (any) {
            last = steady_clock::now();
            DrainLocked(pause_.count() > 0 ? 1 : SIZE_MAX);
        }
    }
}

void SyslogSink::SetPause(std::chrono::milliseconds pause) {
    const std::lock_guard<std::mutex> lock(mutex_);
    pause_ = pause;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, SOCKET_PATH, sizeof(address.sun_path) - 1);
    while (pause.count() > 0 &&
           sendto(fd, "fill", 4, 0, reinterpret_cast<sockaddr*>(&address), sizeof(address)) > 0) {
    }
    close(fd);
}

// Readers drain the socket themselves as well: what was sent before they asked is then there,
// whether or not the thread has run.
void SyslogSink::DrainLocked(size_t most) {
    static std::array<char, MAX_DATAGRAM> buffer;
    if (fd_ < 0) {
        return;
    }
    bool any = false;
    for (ssize_t got = 0;
         most > 0 && (got = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0; --most) {
        messages_.push_back(ParseSyslogLine({buffer.data(), static_cast<size_t>(got)}));
        any = true;
    }
    if (any) {
        arrived_.notify_all();
    }
}

std::vector<SyslogMessage> SyslogSink::Messages() {
    const std::lock_guard<std::mutex> lock(mutex_);
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
    std::unique_lock<std::mutex> lock(mutex_);
    DrainLocked();
    return arrived_.wait_for(lock, timeout, [&] {
        return std::any_of(messages_.begin(), messages_.end(),
                           [part](const SyslogMessage& message) {
                               return message.text.find(part) != std::string::npos;
                           });
    });
}

void SyslogSink::Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    DrainLocked();
    messages_.clear();
}
