// The lines of a text file of bounded size.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "pmctl/check_context.h"

namespace ProcMgr::Pmctl {

struct TextLine {
    uint32_t number = 0;  // counted from 1
    std::string_view text;
};

// The lines of the text, without line ends. The text must outlive them.
std::vector<TextLine> LinesOf(std::string_view text);

// Reads a regular file of at most 1 MiB without binary data. False when it cannot be read; the
// error has been added to the findings then.
bool ReadTextFile(const std::string& path, CheckContext& context, std::string& text);

}  // namespace ProcMgr::Pmctl
