#include "status/process_usage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "main/common/numbers.h"
#include "main/common/proc_files.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Status {
namespace {

// Numbers of the fields, as the manual page of proc counts them from 1. The state is the first one
// after the name.
constexpr size_t FIELD_STATE = 3;
constexpr size_t FIELD_USER_TICKS = 14;
constexpr size_t FIELD_SYSTEM_TICKS = 15;
constexpr size_t FIELD_THREADS = 20;
constexpr size_t FIELD_RSS = 24;
constexpr size_t FIELD_LAST = FIELD_RSS;
// A stat line is shorter: 52 fields of 20 digits at most.
constexpr size_t STAT_SIZE = 2048;

constexpr uint64_t MILLISECONDS = 1000;
constexpr uint64_t KIB = 1024;

using Fields = std::array<uint64_t, FIELD_LAST + 1>;

// The fields after the name, which may hold any character; the fields after it hold no ')'. A field
// that is no positive number is 0. Nothing when there are too few.
std::optional<Fields> SplitFields(std::string_view stat) {
    const size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string_view::npos || nameEnd + 2 > stat.size()) {
        return std::nullopt;
    }
    stat.remove_prefix(nameEnd + 2);
    Fields fields{};
    for (size_t field = FIELD_STATE; field <= FIELD_LAST; ++field) {
        if (stat.empty()) {
            return std::nullopt;
        }
        const size_t length = std::min(stat.find(' '), stat.size());
        fields[field] = ParseNumber<uint64_t>(stat.substr(0, length)).value_or(0);
        stat.remove_prefix(std::min(length + 1, stat.size()));
    }
    return fields;
}

}  // namespace

std::optional<ProcessUsage> ParseProcessUsage(std::string_view stat, uint64_t ticks,
                                              uint64_t pageBytes) {
    const std::optional<Fields> fields = SplitFields(stat);
    if (!fields || ticks == 0) {
        return std::nullopt;
    }
    const uint64_t used = (*fields)[FIELD_USER_TICKS] + (*fields)[FIELD_SYSTEM_TICKS];
    return ProcessUsage{used * MILLISECONDS / ticks, (*fields)[FIELD_RSS] * pageBytes / KIB,
                        (*fields)[FIELD_THREADS]};
}

std::optional<ProcessUsage> ReadProcessUsage(int32_t pid) {
    static const auto ticks = static_cast<uint64_t>(std::max(sysconf(_SC_CLK_TCK), 1L));
    static const auto pageBytes = static_cast<uint64_t>(std::max(sysconf(_SC_PAGESIZE), 1L));
    const Wire::UniqueFd file(open(ProcPath(pid, "stat").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, STAT_SIZE> stat{};
    const ssize_t size = file.IsValid() ? read(file.Get(), stat.data(), stat.size()) : -1;
    if (size <= 0) {
        return std::nullopt;
    }
    return ParseProcessUsage({stat.data(), static_cast<size_t>(size)}, ticks, pageBytes);
}

}  // namespace ProcMgr::Status
