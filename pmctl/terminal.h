// The terminal behind standard output: its size, its characters, and colours.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ProcMgr::Pmctl {

// 80 columns when standard output is no terminal or the terminal does not know its size.
size_t TerminalColumns();
// 24 lines then.
size_t TerminalRows();

// Characters of pictures on a terminal.
struct Glyphs {
    std::string_view ellipsis;
    std::string_view branch;  // of a tree: before a child that is not the last
    std::string_view last;    // before the last child
    std::string_view trunk;   // below a child that is not the last
    std::string_view wait;    // of a time line
    std::string_view start;
    std::string_view ready;
    std::string_view failed;
};
// By LC_ALL, LC_CTYPE or LANG: lines and blocks where they name UTF-8, else ASCII.
const Glyphs& TerminalGlyphs();

enum class Ink { PLAIN, GOOD, BAD, BUSY, QUIET, STRONG };

// The text in the ink's colour, or as it is without colours.
std::string Painted(bool hasColours, Ink ink, std::string_view text);

}  // namespace ProcMgr::Pmctl
