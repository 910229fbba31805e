#include "baseservice/watchdog.h"

#include <cerrno>
#include <climits>
#include <stdexcept>

#include "baseservice/watchdog_sys.h"
#include "main/common/line_reader.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr {
namespace {

constexpr const char* MODULES_FILE = "/proc/modules";
constexpr const char* WATCHDOG_DEVICE = "/local/dev/veskutil_watchdog";
// Read and write, type 'W', number 1, size 8. The device takes the milliseconds by value.
constexpr unsigned long FEED_REQUEST = 0xC0085701;
constexpr int MILLISECONDS = 1000;

int ToMilliseconds(const std::string& seconds) {
    const int number = std::stoi(seconds);
    if (number > INT_MAX / MILLISECONDS || number < INT_MIN / MILLISECONDS) {
        throw std::out_of_range("stoi");
    }
    return number * MILLISECONDS;
}

bool IsDisabledByCmdline() {
    if (!ProcMgrEnv::GetInstance().IsWatchDogDisabled()) {
        return false;
    }
    ProcMgrLog(LOG_WARNING, "Watchdog is disabled by cmdline parameter. Do not insert ko");
    return true;
}

}  // namespace

bool InsertWatchDogKo(const ProcMgrSettings& settings) {
    if (IsDisabledByCmdline()) {
        return false;
    }
    if (!settings.watchDogEnable) {
        ProcMgrLog(LOG_WARNING, "%s is disable, so not need insert",
                   settings.watchDogModule.c_str());
        return false;
    }
    if (WatchDogSys::access(settings.watchDogFile.c_str(), F_OK) != 0) {
        ProcMgrLog(LOG_ERR, "%s is not existed errno=%d", settings.watchDogFile.c_str(), errno);
        return false;
    }
    return IsWatchDogKoInserted(settings.watchDogModule) || InsmodKo(settings);
}

bool IsWatchDogKoInserted(const std::string& module) {
    LineReader modules(MODULES_FILE);
    while (const auto line = modules.Next()) {
        if (line->substr(0, line->find(' ')) == module) {
            ProcMgrLog(LOG_INFO, "Watchdog ko=%s is already insert", module.c_str());
            return true;
        }
    }
    ProcMgrLog(LOG_INFO, "Watchdog ko checking, ko=%s has not been inserted", module.c_str());
    return false;
}

bool InsmodKo(const ProcMgrSettings& settings) {
    if (IsDisabledByCmdline()) {
        return false;
    }
    const char* file = settings.watchDogFile.c_str();
    const int fd = WatchDogSys::open(file, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ProcMgrLog(LOG_ERR, "InsmodKo failed. open ko=%s failed errno=%d", file, errno);
        return false;
    }
    ProcMgrLog(LOG_INFO, "Open watchdog ko successfully, watchdog ko=%s, fd=%d", file, fd);
    const std::string parameters = "timeout=" + settings.watchDogTimeout +
                                   " action=" + settings.watchDogAction + " disable_on_poweroff=1";
    const long result = WatchDogSys::FinitModule(fd, parameters.c_str(), 0);
    const int error = errno;
    WatchDogSys::close(fd);
    if (result != 0) {
        ProcMgrLog(LOG_ERR, "InsmodKo failed. finit_module ko=%s failed errno=%d, params=%s", file,
                   error, parameters.c_str());
        return false;
    }
    ProcMgrLog(LOG_INFO, "Insmod %s success !!!, param=%s", file, parameters.c_str());
    return true;
}

bool EnableFeedDog(const std::string& timeout) {
    const int fd = WatchDogSys::open(WATCHDOG_DEVICE, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ProcMgrLog(LOG_ERR, "EnableFeedDog failed. open device=%s failed errno=%d", WATCHDOG_DEVICE,
                   errno);
        return false;
    }
    ProcMgrLog(LOG_INFO, "Enable feeding dog, open device=%s successfully, fd=%d", WATCHDOG_DEVICE,
               fd);
    int milliseconds = 0;
    try {
        milliseconds = ToMilliseconds(timeout);
    } catch (...) {
        WatchDogSys::close(fd);
        throw;
    }
    const int result = WatchDogSys::ioctl(fd, FEED_REQUEST, static_cast<long>(milliseconds));
    const int error = errno;
    WatchDogSys::close(fd);
    if (result < 0) {
        ProcMgrLog(LOG_ERR,
                   "EnableFeedDog failed. ioctl failed. device=%s, errno=%d, timeout=%d ms",
                   WATCHDOG_DEVICE, error, milliseconds);
        return false;
    }
    ProcMgrLog(LOG_INFO, "Enable feeding watchdog ioctl successfully, device=%s, timeout=%dms",
               WATCHDOG_DEVICE, milliseconds);
    return true;
}

}  // namespace ProcMgr
