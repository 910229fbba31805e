#include "resource/task_file.h"

#include <fcntl.h>
#include <unistd.h>

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

}  // namespace ProcMgr
