#include "resource/task_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <string_view>

#include "main/common/numbers.h"

namespace ProcMgr {

bool AppendTid(const std::string& path, int32_t tid) {
    if (access(path.c_str(), F_OK) != 0) {
        return false;
    }
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const Decimal number(tid);
    if (fd >= 0) {
        const std::string_view id = number.Get();
        [[maybe_unused]] const ssize_t written = write(fd, id.data(), id.size());
        close(fd);
    }
    return true;
}

}  // namespace ProcMgr
