#include "pmctl/screen.h"

#include <unistd.h>

#include <csignal>
#include <string_view>

namespace ProcMgr::Pmctl {
namespace {

constexpr std::string_view ENTER = "\x1b[?1049h\x1b[?25l\x1b[2J";
constexpr std::string_view LEAVE = "\x1b[?25h\x1b[?1049l";
constexpr std::string_view HOME = "\x1b[H";
constexpr std::string_view CLEAR_LINE = "\x1b[K";
constexpr std::string_view CLEAR_BELOW = "\x1b[J";
constexpr int ENDING_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// Makes only calls that a signal handler may make. What is not taken whole is tried again; an error
// means that the terminal has gone.
void Write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written <= 0) {
            return;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
}

// The disposition is the default again (SA_RESETHAND): the process ends of the signal, so that its
// parent sees that.
void RestoreAndEnd(int signal) {
    Write(LEAVE);
    raise(signal);
}

}  // namespace

Screen::Screen() {
    struct sigaction action {};
    action.sa_handler = RestoreAndEnd;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : ENDING_SIGNALS) {
        sigaction(signal, &action, nullptr);
    }
    Write(ENTER);
}

Screen::~Screen() {
    Write(LEAVE);
    for (const int signal : ENDING_SIGNALS) {
        std::signal(signal, SIG_DFL);
    }
}

void Screen::Draw(const std::vector<std::string>& lines) const {
    std::string frame(HOME);
    for (size_t i = 0; i < lines.size(); ++i) {
        frame += i == 0 ? "" : "\r\n";
        frame += lines[i];
        frame += CLEAR_LINE;
    }
    frame += CLEAR_BELOW;
    Write(frame);
}

}  // namespace ProcMgr::Pmctl
