#include "resource/task_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "main/common/line_reader.h"
#include "main/common/numbers.h"

namespace ProcMgr {

bool AppendTid(const std::string& path, int32_t tid) {
    if (access(path.c_str(), F_OK) != 0) {
        return false;
    }
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd >= 0) {
        const std::string line = std::to_string(tid) + '\n';
        [[maybe_unused]] const ssize_t written = write(fd, line.data(), line.size());
        close(fd);
    }
    return true;
}

bool AppendTidToAll(const std::vector<std::string>& paths, int32_t tid, std::string& error) {
    bool isComplete = true;
    for (const std::string& path : paths) {
        if (!AppendTid(path, tid)) {
            error += "add to group failed, cgroup path=" + path + " is not existed;";
            isComplete = false;
        }
    }
    return isComplete;
}

bool TaskFiles::Holds(const std::string& path, int32_t tid) {
    const std::optional<Ids>& ids = Read(path);
    return ids && std::binary_search(ids->begin(), ids->end(), tid);
}

const std::optional<TaskFiles::Ids>& TaskFiles::Read(const std::string& path) {
    const auto [entry, isNew] = files_.try_emplace(path);
    if (!isNew) {
        return entry->second;
    }
    LineReader file(path);
    if (!file.IsOpen()) {
        return entry->second;
    }
    Ids& ids = entry->second.emplace();
    while (const auto line = file.Next()) {
        ids.push_back(ParseLeadingNumber<int32_t>(*line).value_or(0));
    }
    // The kernel does not promise an order.
    std::sort(ids.begin(), ids.end());
    return entry->second;
}

}  // namespace ProcMgr
