#include "pmctl/people.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "pmctl/svg.h"
#include "pmctl/units.h"

namespace ProcMgr::Pmctl {
namespace {

struct Unit {
    const char* name;
    int64_t seconds;
};
constexpr std::array UNITS = {Unit{"d", 86400}, Unit{"h", 3600}, Unit{"min", 60}, Unit{"s", 1}};

std::string WithUnit(double number, int digits, const char* unit) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f %s", digits, number, unit);
    return text.data();
}

// A duration of less than a minute.
std::string FormatSeconds(double ns) {
    if (ns < 9.95 * NS_PER_MS) {
        return WithUnit(ns / NS_PER_MS, 1, "ms");
    }
    return ns < 999.5 * NS_PER_MS ? WithUnit(ns / NS_PER_MS, 0, "ms")
                                  : WithUnit(ns / NS_PER_S, 1, "s");
}

// A duration of at least a minute, with its largest unit and, if wanted, the next one.
std::string FormatLong(int64_t seconds, bool hasSecond) {
    const auto* unit = std::find_if(UNITS.begin(), UNITS.end(),
                                    [seconds](const Unit& u) { return seconds >= u.seconds; });
    std::string text = std::to_string(seconds / unit->seconds) + ' ' + unit->name;
    const int64_t rest = seconds % unit->seconds;
    const auto* next = unit + 1;
    if (hasSecond && next != UNITS.end() && rest >= next->seconds) {
        text += ' ' + std::to_string(rest / next->seconds) + ' ' + next->name;
    }
    return text;
}

// The length in bytes of the UTF-8 character at the begin of the text; 0 for bytes that are none.
size_t CharacterLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    const size_t length = first < 0x80 ? 1 : first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (length == 1) {
        return 1;
    }
    // The escaping of XML replaces what is no character.
    const std::string_view character = text.substr(0, length);
    return text.size() >= length && EscapeXml(character) == character ? length : 0;
}

uint32_t CodeOf(std::string_view character) {
    const size_t size = character.size();
    const auto first = static_cast<unsigned char>(character[0]);
    uint32_t code = size == 1 ? first : first & (0xffU >> (size + 1));
    for (const char next : character.substr(1)) {
        code = code << 6U | (static_cast<unsigned char>(next) & 0x3fU);
    }
    return code;
}

// Marks and overrides of the direction of writing, line and paragraph separators.
bool IsDisguise(uint32_t code) {
    return code == 0x61c || (code >= 0x200b && code <= 0x200f) ||
           (code >= 0x2028 && code <= 0x202e) || (code >= 0x2060 && code <= 0x206f) ||
           code == 0xfeff;
}

std::string Escaped(const char* format, uint32_t number) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), format, number);
    return text.data();
}

}  // namespace

std::string FormatKib(double kib) {
    constexpr double STEP = 1024;
    if (kib < 999.5) {
        return WithUnit(kib, 0, "KiB");
    }
    return kib < 999.5 * STEP ? WithUnit(kib / STEP, 1, "MiB")
                              : WithUnit(kib / STEP / STEP, 1, "GiB");
}

std::string FormatDuration(double ns) {
    return ns < 59.95 * NS_PER_S ? FormatSeconds(std::max(ns, 0.0))
                                 : FormatLong(std::llround(ns / NS_PER_S), true);
}

std::string FormatShort(double ns) {
    if (ns < 999.5 * NS_PER_MS) {
        return FormatSeconds(std::max(ns, 0.0));
    }
    return FormatLong(std::llround(ns / NS_PER_S), false);
}

std::string FormatAge(const Clocks& clock, int64_t atNs) {
    return FormatShort(static_cast<double>(clock.monotonicNs - atNs));
}

std::string FormatAgo(const Clocks& clock, int64_t atNs) {
    return FormatAge(clock, atNs) + " ago";
}

std::string FormatWall(const Clocks& clock, int64_t atNs) {
    constexpr int64_t NS = 1000000000;
    const int64_t wall = clock.realtimeNs - (clock.monotonicNs - atNs);
    const int64_t fraction = (wall % NS + NS) % NS;
    const time_t seconds = (wall - fraction) / NS;
    struct tm local {};
    localtime_r(&seconds, &local);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
    std::array<char, 8> milliseconds{};
    std::snprintf(milliseconds.data(), milliseconds.size(), ".%03d",
                  static_cast<int>(fraction / 1000000));
    return std::string(text.data()) + milliseconds.data();
}

std::string Counted(int64_t number, std::string_view noun) {
    return std::to_string(number) + ' ' + std::string(noun) + (number == 1 ? "" : "s");
}

std::string Printable(std::string_view text) {
    std::string printable;
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text[0]);
        const size_t length = byte < 0x80 ? 1 : CharacterLength(text);
        if (byte < 0x20 || byte == 0x7f || length == 0) {
            printable += Escaped("\\x%02x", byte);
        } else if (length > 1 && IsDisguise(CodeOf(text.substr(0, length)))) {
            printable += Escaped("\\u{%04x}", CodeOf(text.substr(0, length)));
        } else {
            printable += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return printable;
}

std::string Fitted(std::string_view text, size_t columns, std::string_view ellipsis) {
    constexpr size_t BYTES_PER_CHARACTER = 4;
    // A cut before the escaping bounds the work; it leaves more than there is room for.
    std::string printable = Printable(text.substr(0, BYTES_PER_CHARACTER * (columns + 1)));
    if (TextColumns(printable) <= columns) {
        return printable;
    }
    const size_t room = columns - TextColumns(ellipsis);
    while (TextColumns(printable) > room) {
        while ((static_cast<unsigned char>(printable.back()) & 0xc0U) == 0x80) {
            printable.pop_back();
        }
        printable.pop_back();
    }
    return printable.append(ellipsis);
}

std::string Padded(std::string_view text, size_t columns) {
    const size_t used = TextColumns(text);
    return std::string(text) + std::string(columns > used ? columns - used : 0, ' ');
}

std::string Wrapped(std::string_view text, size_t columns, size_t indent) {
    std::string lines;
    size_t used = 0;
    for (bool isFirst = true; !text.empty(); isFirst = false) {
        const std::string_view word = text.substr(0, text.find(' '));
        const size_t width = TextColumns(word);
        if (!isFirst && used + 1 + width > columns) {
            lines += '\n' + std::string(indent, ' ');
            used = indent;
        } else if (!isFirst) {
            lines += ' ';
            ++used;
        }
        lines += word;
        used += width;
        text.remove_prefix(std::min(word.size() + 1, text.size()));
    }
    return lines;
}

}  // namespace ProcMgr::Pmctl
