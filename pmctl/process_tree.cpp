#include "pmctl/process_tree.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "main/common/numbers.h"

namespace ProcMgr::Pmctl {
namespace {

namespace Files = std::filesystem;

constexpr size_t PROCESSES_MAX = 32768;
constexpr int GENERATIONS_MAX = 16;

// The fields behind the name, counted from 0.
constexpr size_t FIELD_PARENT = 1;
constexpr size_t FIELD_THREADS = 17;

// A blank-separated field; empty when there are not so many.
std::string_view FieldOf(std::string_view text, size_t number) {
    for (; number > 0; --number) {
        const size_t end = text.find(' ');
        text = end == std::string_view::npos ? "" : text.substr(end + 1);
    }
    return text.substr(0, text.find(' '));
}

}  // namespace

// "PID (NAME) STATE PARENT ...": the name may contain blanks and brackets.
Process ParseStat(std::string_view stat) {
    const size_t open = stat.find('(');
    const size_t close = stat.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open ||
        close + 2 > stat.size()) {
        return {};
    }
    const std::string_view rest = stat.substr(close + 2);
    const auto parent = ParseNumber<int64_t>(FieldOf(rest, FIELD_PARENT));
    const auto threads = ParseNumber<int64_t>(FieldOf(rest, FIELD_THREADS));
    if (!parent || !threads) {
        return {};
    }
    Process process;
    process.pid = ParseLeadingNumber<int64_t>(stat).value_or(0);
    process.parent = *parent;
    process.name = stat.substr(open + 1, close - open - 1);
    process.threads = *threads;
    return process;
}

ProcessTable ProcessTable::Read() {
    ProcessTable table;
    std::error_code error;
    Files::directory_iterator entry("/proc", error);
    for (; !error && entry != Files::directory_iterator() && table.byParent_.size() < PROCESSES_MAX;
         entry.increment(error)) {
        if (!ParseNumber<int64_t>(entry->path().filename().native())) {
            continue;
        }
        std::ifstream file(entry->path() / "stat");
        const std::string stat{std::istreambuf_iterator<char>(file), {}};
        Process process = ParseStat(stat);
        if (process.pid > 0) {
            table.byParent_.emplace(process.parent, std::move(process));
        }
    }
    return table;
}

std::vector<Process> ProcessTable::Below(int64_t pid, size_t& left, int depth) const {
    std::vector<Process> processes;
    const auto [first, end] = byParent_.equal_range(pid);
    for (auto child = first; child != end && left > 0 && depth < GENERATIONS_MAX; ++child) {
        --left;
        processes.push_back(child->second);
        processes.back().children = Below(child->second.pid, left, depth + 1);
    }
    std::sort(processes.begin(), processes.end(),
              [](const Process& a, const Process& b) { return a.pid < b.pid; });
    return processes;
}

}  // namespace ProcMgr::Pmctl
