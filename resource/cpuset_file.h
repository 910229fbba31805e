// Reads the cores of a cpuset from its cpuset.cpus file: numbers with commas between them, or
// ranges. CoreAffinityMgr and DelayCoreAffinity call it, from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ProcMgr {

// The cores in the first line of the file; empty when the file cannot be read.
std::vector<uint32_t> ReadCpusetFile(const std::string& path);

// The cores in one line. When the line has a range, numbers outside of ranges are ignored, and the
// bounds of a range are at most two digits long: the two next to the '-'. The cpusets of the device
// are written for this reading. `path` is for the log.
std::vector<uint32_t> ParseCpusetLine(std::string_view line, const std::string& path);

}  // namespace ProcMgr
