#include "pmctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t COLUMNS = 80;
constexpr size_t COLUMNS_MIN = 40;
constexpr size_t COLUMNS_MAX = 1000;
constexpr size_t ROWS = 24;
constexpr size_t ROWS_MIN = 4;

constexpr Glyphs UTF8{"…", "├─", "└─", "│ ", "·", "█", "◆", "✗"};
constexpr Glyphs ASCII{"...", "|-", "`-", "| ", ".", "=", "|", "x"};

winsize Size() {
    winsize size{};
    if (isatty(STDOUT_FILENO) != 1 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) {
        return {};
    }
    return size;
}

// The first of the variables that is set decides, as in setlocale(3).
bool IsUtf8() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        const std::string_view locale = value == nullptr ? "" : value;
        if (!locale.empty()) {
            return locale.find("UTF-8") != std::string_view::npos ||
                   locale.find("utf8") != std::string_view::npos;
        }
    }
    return false;
}

}  // namespace

size_t TerminalColumns() {
    const size_t columns = Size().ws_col;
    return columns == 0 ? COLUMNS : std::clamp(columns, COLUMNS_MIN, COLUMNS_MAX);
}

size_t TerminalRows() {
    const size_t rows = Size().ws_row;
    return rows == 0 ? ROWS : std::max(rows, ROWS_MIN);
}

const Glyphs& TerminalGlyphs() {
    static const bool isUtf8 = IsUtf8();
    return isUtf8 ? UTF8 : ASCII;
}

std::string Painted(bool hasColours, Ink ink, std::string_view text) {
    static constexpr std::array<std::string_view, 6> CODES{"", "32", "31", "33", "2", "1"};
    const std::string_view code = CODES[static_cast<size_t>(ink)];
    if (!hasColours || code.empty() || text.empty()) {
        return std::string(text);
    }
    std::string painted = "\x1b[";
    painted += code;
    painted += 'm';
    painted += text;
    painted += "\x1b[0m";
    return painted;
}

}  // namespace ProcMgr::Pmctl
