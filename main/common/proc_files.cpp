#include "main/common/proc_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>

#include "main/common/line_reader.h"
#include "main/common/numbers.h"

namespace ProcMgr {
namespace {

// The start time is field 22 of a stat line; the state, the first field after the name, is the 3rd.
constexpr int FIELDS_BEFORE_START = 22 - 3;

constexpr const char* OWN_THREADS = "/proc/self/task";
// Bytes of the buffer for entries of the directory, about 24 for each thread.
constexpr size_t ENTRIES_SIZE = 2048;

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

// The text of a status line after its colon, without the blanks before the value.
std::string_view ValueAfter(std::string_view line, size_t colon) {
    line.remove_prefix(colon + 1);
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    return line;
}

}  // namespace

std::string ProcPath(int32_t pid, std::string_view file) {
    return PROC_DIR + std::to_string(pid) + '/' + std::string(file);
}

std::string ThreadPath(int32_t pid, int32_t tid, std::string_view file) {
    std::string path = ProcPath(pid, "task/") + std::to_string(tid);
    if (!file.empty()) {
        path.append("/").append(file);
    }
    return path;
}

std::optional<std::vector<std::string>> ReadStatusFields(const std::string& path,
                                                         std::span<const std::string_view> keys) {
    LineReader file(path);
    if (!file.IsOpen()) {
        return std::nullopt;
    }
    std::vector<std::string> values(keys.size());
    size_t missing = keys.size();
    auto line = file.Next();
    if (!line) {
        return std::nullopt;
    }
    for (; line && missing > 0; line = file.Next()) {
        const size_t colon = std::min(line->find(':'), line->size());
        const auto key = std::find(keys.begin(), keys.end(), line->substr(0, colon));
        if (key != keys.end() && colon < line->size()) {
            values[static_cast<size_t>(key - keys.begin())] = ValueAfter(*line, colon);
            --missing;
        }
    }
    return values;
}

bool ReadThreadIds(int32_t pid, std::set<int32_t>& tids) {
    const Directory directory(opendir(ProcPath(pid, "task/").c_str()), closedir);
    if (directory == nullptr) {
        return false;
    }
    while (const dirent* entry = readdir(directory.get())) {
        if (const auto tid = ParseNumber<int32_t>(entry->d_name)) {
            tids.insert(*tid);
        }
    }
    return true;
}

bool OwnThreads::MayHaveChanged() {
    struct stat status {};
    return ++unchanged_ >= UNCHANGED_MAX || fstat(directory_.Get(), &status) != 0 ||
           status.st_nlink != links_;
}

bool OwnThreads::Read(std::set<int32_t>& tids) {
    if (!directory_.IsValid()) {
        directory_ = Wire::UniqueFd(open(OWN_THREADS, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    // Before the list: a thread that starts in between is seen next time.
    struct stat status {};
    links_ = fstat(directory_.Get(), &status) == 0 ? status.st_nlink : 0;
    unchanged_ = 0;
    if (lseek(directory_.Get(), 0, SEEK_SET) != 0) {
        return false;
    }
    alignas(dirent64) std::array<char, ENTRIES_SIZE> entries;
    for (;;) {
        const ssize_t size = getdents64(directory_.Get(), entries.data(), entries.size());
        if (size <= 0) {
            return size == 0;
        }
        for (size_t at = 0; at < static_cast<size_t>(size);) {
            const auto* entry = reinterpret_cast<const dirent64*>(entries.data() + at);
            if (const auto tid = ParseNumber<int32_t>(&entry->d_name[0])) {
                tids.insert(*tid);
            }
            at += entry->d_reclen;
        }
    }
}

std::optional<uint64_t> ReadStartTicks(int32_t pid) {
    LineReader file(ProcPath(pid, "stat"));
    auto line = file.Next();
    // "PID (NAME) STATE ...": the name may hold any character, the fields after it hold no ')'.
    const size_t nameEnd = line ? line->rfind(')') : std::string_view::npos;
    if (nameEnd == std::string_view::npos || nameEnd + 2 > line->size()) {
        return std::nullopt;
    }
    line->remove_prefix(nameEnd + 2);
    for (int field = 0; field < FIELDS_BEFORE_START; ++field) {
        line->remove_prefix(std::min(line->find(' '), line->size() - 1) + 1);
        if (line->empty()) {
            return std::nullopt;
        }
    }
    return ParseLeadingNumber<uint64_t>(*line);
}

}  // namespace ProcMgr
