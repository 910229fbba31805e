// early_log FILE
//
// Stores the log lines of the time before the platform's logger runs: listens on /dev/log, appends
// each line to FILE, and ends when the logger has replaced the socket with its own.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "examples/service.h"
#include "wire/unique_fd.h"

namespace {

using Wire::UniqueFd;

constexpr std::string_view SOCKET_PATH = "/dev/log";
constexpr mode_t SOCKET_MODE = 0666;
constexpr std::chrono::milliseconds LOOK_PERIOD{10};

constexpr std::array<std::string_view, 8> LEVELS = {"emerg",   "alert",  "crit", "err",
                                                    "warning", "notice", "info", "debug"};

UniqueFd Listen() {
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, SOCKET_PATH.data(), SOCKET_PATH.size());
    if (!fd.IsValid() ||
        bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(address.sun_path, SOCKET_MODE) != 0) {
        fd.Reset();
    }
    return fd;
}

// The inode of the file at the socket's path; 0 when there is no file.
ino_t InodeOfSocket() {
    struct stat status {};
    return stat(SOCKET_PATH.data(), &status) == 0 ? status.st_ino : 0;
}

// Turns "<14>Nov 21 04:43:00 worker[5]: text" into "04:43:00 info    worker[5]: text", the form
// that the logger of the demo writes.
std::string Format(std::string_view line) {
    constexpr size_t STAMP_LENGTH = std::string_view("Nov 21 04:43:00 ").size();
    constexpr size_t DATE_LENGTH = std::string_view("Nov 21 ").size();
    constexpr size_t LEVEL_WIDTH = 7;
    const size_t close = line.find('>');
    unsigned priority = 0;
    if (line.empty() || line.front() != '<' || close == std::string_view::npos ||
        line.size() < close + 1 + STAMP_LENGTH ||
        std::from_chars(line.data() + 1, line.data() + close, priority).ec != std::errc()) {
        return std::string(line) + '\n';
    }
    std::string level(LEVELS[priority % LEVELS.size()]);
    level.resize(LEVEL_WIDTH, ' ');
    line.remove_prefix(close + 1 + DATE_LENGTH);
    std::string text(line.substr(0, STAMP_LENGTH - DATE_LENGTH));
    line.remove_prefix(STAMP_LENGTH - DATE_LENGTH);
    return text + level + ' ' + std::string(line) + '\n';
}

// Appends one received line to the file; false when there is none.
bool TakeLine(int socket, int file) {
    std::array<char, 8192> buffer;
    const ssize_t length = recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length <= 0) {
        return false;
    }
    std::string_view line(buffer.data(), static_cast<size_t>(length));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\0')) {
        line.remove_suffix(1);
    }
    const std::string text = Format(line);
    return write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

int main(int argc, char** argv) {
    Example::TakeStopSignals();
    if (argc != 2) {
        std::fprintf(stderr, "usage: early_log FILE\n");
        return 2;
    }
    const UniqueFd file(open(argv[1], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!file.IsValid()) {
        std::perror(argv[1]);
        return 1;
    }
    const UniqueFd socket = Listen();
    if (!socket.IsValid()) {
        std::perror(SOCKET_PATH.data());
        return 1;
    }
    const ino_t own = InodeOfSocket();
    ino_t current = own;
    while ((current == own || current == 0) && !Example::WaitForStop(LOOK_PERIOD)) {
        while (TakeLine(socket.Get(), file.Get())) {
        }
        current = InodeOfSocket();
    }
    // Senders that still use this socket get an error from now on and connect to the new one. Lines
    // sent before can still be received.
    shutdown(socket.Get(), SHUT_RD);
    while (TakeLine(socket.Get(), file.Get())) {
    }
    return 0;
}
