// The cores of a cpuset group, as its file lists them: numbers with commas between them, or ranges.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ProcMgr {

// The cores that the first line of the file names; none when it cannot be read.
std::vector<uint32_t> ReadCpusetFile(const std::string& path);

// The cores of one line. A line with a range is read for its ranges only, and of a bound at most
// two digits are taken: that is how the cpusets of the device are to be understood. `path` is for
// the log.
std::vector<uint32_t> ParseCpusetLine(std::string_view line, const std::string& path);

}  // namespace ProcMgr
