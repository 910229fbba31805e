// Puts a process or thread into a control group by writing its id into the group's tasks file. The
// launcher, CgroupMgr and the affinity check call it, from any thread; a child may call it between
// fork and execv, so nothing here takes a lock,
// allocates memory or logs.
#pragma once

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ProcMgr {

// The line that a tasks file takes for one id, in the object itself.
class TidLine {
public:
    explicit TidLine(int32_t tid) {
        char* const end = std::to_chars(text_.data(), text_.data() + text_.size() - 1, tid).ptr;
        *end = '\n';
        size_ = static_cast<size_t>(end - text_.data()) + 1;
    }

    std::string_view Get() const { return {text_.data(), size_}; }

private:
    std::array<char, 12> text_;  // the longest id has 11 characters
    size_t size_ = 0;
};

// Writes the id into the tasks file at `path`. False when the file does not exist. A failure of the
// write is not reported: the process may have ended.
bool AppendTid(const std::string& path, int32_t tid);

// Writes the id into each of the files. False when some files do not exist: each of them is named
// at the end of `error`, and the others are written all the same. `Text`: std::string, or the
// fixed buffer of a child; anything to which a std::string_view can be added.
template <typename Text>
bool AppendTidToAll(const std::vector<std::string>& paths, int32_t tid, Text& error) {
    bool isComplete = true;
    for (const std::string& path : paths) {
        if (!AppendTid(path, tid)) {
            error += "add to group failed, cgroup path=";
            error += path;
            error += " is not existed;";
            isComplete = false;
        }
    }
    return isComplete;
}

}  // namespace ProcMgr
