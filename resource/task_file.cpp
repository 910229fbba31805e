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
        const TidLine line(tid);
        [[maybe_unused]] const ssize_t written = write(fd, line.Get().data(), line.Get().size());
        close(fd);
    }
    return true;
}

}  // namespace ProcMgr
