#include "resource/cpuset_file.h"

#include <algorithm>

#include "main/common/line_reader.h"
#include "main/common/log.h"
#include "main/common/numbers.h"

namespace ProcMgr {
namespace {

constexpr size_t LINE_LENGTH_MAX = 8192;
constexpr size_t BOUND_DIGITS_MAX = 2;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// The number in the one or two digits that end at `end`; 0 when there is no digit.
uint32_t NumberBefore(std::string_view line, size_t end) {
    size_t begin = end;
    while (begin > 0 && end - begin < BOUND_DIGITS_MAX && IsDigit(line[begin - 1])) {
        --begin;
    }
    return ParseNumber<uint32_t>(line.substr(begin, end - begin)).value_or(0);
}

// The number in the one or two digits that begin at `begin`; 0 when there is no digit.
uint32_t NumberAfter(std::string_view line, size_t begin) {
    size_t end = begin;
    while (end < line.size() && end - begin < BOUND_DIGITS_MAX && IsDigit(line[end])) {
        ++end;
    }
    return ParseNumber<uint32_t>(line.substr(begin, end - begin)).value_or(0);
}

std::vector<uint32_t> ParseRanges(std::string_view line, const std::string& path) {
    std::vector<uint32_t> cores;
    const size_t first = line.find('-');
    ProcMgrSysLog(LOG_INFO, "path:%s position:%lu CpuCore size:%lu", path.c_str(),
                  static_cast<unsigned long>(first), static_cast<unsigned long>(line.size()));
    for (size_t dash = first; dash != std::string_view::npos; dash = line.find('-', dash + 1)) {
        const uint32_t low = NumberBefore(line, dash);
        const uint32_t high = NumberAfter(line, dash + 1);
        ProcMgrSysLog(LOG_INFO, "path:%s position before:%u after:%u", path.c_str(), low, high);
        for (uint32_t core = low; core <= high; ++core) {
            cores.push_back(core);
        }
    }
    return cores;
}

// Of each piece between commas the leading digits count; a piece without any is left out.
std::vector<uint32_t> ParseList(std::string_view line) {
    std::vector<uint32_t> cores;
    while (!line.empty()) {
        const size_t comma = std::min(line.find(','), line.size());
        std::string_view piece = line.substr(0, comma);
        piece.remove_prefix(std::min(piece.find_first_not_of(" \t"), piece.size()));
        if (const auto core = ParseLeadingNumber<int32_t>(piece)) {
            cores.push_back(static_cast<uint32_t>(*core));
        }
        line.remove_prefix(std::min(comma + 1, line.size()));
    }
    return cores;
}

}  // namespace

std::vector<uint32_t> ReadCpusetFile(const std::string& path) {
    LineReader file(path, LINE_LENGTH_MAX);
    const auto line = file.Next();
    return line ? ParseCpusetLine(*line, path) : std::vector<uint32_t>();
}

std::vector<uint32_t> ParseCpusetLine(std::string_view line, const std::string& path) {
    const bool hasRange = line.find('-') != std::string_view::npos;
    return hasRange ? ParseRanges(line, path) : ParseList(line);
}

}  // namespace ProcMgr
