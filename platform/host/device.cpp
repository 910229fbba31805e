// The simulated accelerator. It records which handle belongs to which device, and writes one line
// for each call to a file that tests and people read:
//
//   register device=0 node=NAME type=0x602 sensor=0x27 handle=1
//   update device=0 handle=1 assert=1 event=208
//   unregister device=0 handle=1
//   group-create name=NAME size=BYTES
//   group-add name=NAME pid=PID access=read-write
//
// The line of a refused call ends in " refused"; a refused registration has handle 0. A file that
// would grow past 1 MiB is renamed to device-sim.log.1 and replaces the file of that name.
#include "platform/device.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "wire/mutex.h"

namespace {

constexpr const char* CONFIG_PATH = "/etc/device-sim.conf";
constexpr const char* LOG_PATH = "/run/device-sim.log";
constexpr const char* OLD_LOG_PATH = "/run/device-sim.log.1";
constexpr off_t MAX_LOG = off_t{1} << 20;
constexpr std::string_view DEVICES_KEY = "devices=";
constexpr uint32_t DEFAULT_DEVICES = 1;
constexpr size_t MAX_LINE = 512;

constexpr uint32_t DONE = 0;
constexpr uint32_t REFUSED = 1;

uint32_t ConfiguredDevices() {
    const std::unique_ptr<FILE, int (*)(FILE*)> config(std::fopen(CONFIG_PATH, "re"), std::fclose);
    std::array<char, MAX_LINE> line{};
    while (config != nullptr && std::fgets(line.data(), line.size(), config.get()) != nullptr) {
        std::string_view text(line.data());
        text = text.substr(0, text.find('\n'));
        if (!text.starts_with(DEVICES_KEY)) {
            continue;
        }
        text.remove_prefix(DEVICES_KEY.size());
        uint32_t count = 0;
        const char* end = text.data() + text.size();
        const auto parsed = std::from_chars(text.data(), end, count);
        const bool complete = parsed.ec == std::errc() && parsed.ptr == end;
        return complete ? count : DEFAULT_DEVICES;
    }
    return DEFAULT_DEVICES;
}

int OpenLog() {
    return open(LOG_PATH, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
}

// Renames the log that is open as `fd`, unless another process has done so. A process that opened
// the log before writes its line to the renamed file: each line gets whole into one of the two
// files. When two processes rename at the same moment, the older log can be lost.
void MoveLog(int fd) {
    struct stat opened {};
    struct stat named {};
    if (fstat(fd, &opened) == 0 && lstat(LOG_PATH, &named) == 0 && opened.st_ino == named.st_ino &&
        opened.st_dev == named.st_dev) {
        rename(LOG_PATH, OLD_LOG_PATH);
    }
}

void Append(const char* line, size_t length) {
    int fd = OpenLog();
    struct stat status {};
    if (fd >= 0 && fstat(fd, &status) == 0 &&
        status.st_size + static_cast<off_t>(length) > MAX_LOG) {
        MoveLog(fd);
        close(fd);
        fd = OpenLog();
    }
    if (fd >= 0) {
        [[maybe_unused]] const ssize_t written = write(fd, line, length);
        close(fd);
    }
}

// Writes the line with one write() on an append-only descriptor, so that lines of several threads
// and processes stay whole. Takes no lock and allocates nothing. Returns `result`, also when the
// log cannot be written.
__attribute__((format(printf, 2, 3))) uint32_t Record(uint32_t result, const char* format, ...) {
    std::array<char, MAX_LINE> line{};
    constexpr std::string_view REFUSED_MARK = " refused\n";
    const size_t room = line.size() - REFUSED_MARK.size();
    va_list arguments;
    va_start(arguments, format);
    const int printed = vsnprintf(line.data(), room, format, arguments);
    va_end(arguments);
    if (printed < 0) {
        return result;
    }
    const size_t length = std::min(static_cast<size_t>(printed), room - 1);
    // Names come from callers and must not forge a line of their own.
    std::replace_if(
        line.begin(), line.begin() + static_cast<std::ptrdiff_t>(length),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
    const std::string_view ending = result == DONE ? "\n" : REFUSED_MARK;
    std::copy(ending.begin(), ending.end(), line.begin() + static_cast<std::ptrdiff_t>(length));
    Append(line.data(), length + ending.size());
    return result;
}

// The handles that have been given out, each with its device.
class Handles {
public:
    uint64_t Take(uint32_t device) {
        const Wire::LockGuard lock(mutex_);
        deviceOf_[++last_] = device;
        return last_;
    }
    bool Has(uint32_t device, uint64_t handle) {
        const Wire::LockGuard lock(mutex_);
        return Holds(device, handle);
    }
    bool GiveBack(uint32_t device, uint64_t handle) {
        const Wire::LockGuard lock(mutex_);
        return Holds(device, handle) && deviceOf_.erase(handle) == 1;
    }

private:
    bool Holds(uint32_t device, uint64_t handle) const PROCMGR_REQUIRES(mutex_) {
        const auto found = deviceOf_.find(handle);
        return found != deviceOf_.end() && found->second == device;
    }

    Wire::Mutex mutex_;
    std::map<uint64_t, uint32_t> deviceOf_ PROCMGR_GUARDED_BY(mutex_);
    uint64_t last_ PROCMGR_GUARDED_BY(mutex_) = 0;  // a handle is never given out again
};

// Never destroyed: destructors that run at the end of the process unregister nodes.
Handles& AllHandles() {
    static auto* const handles = new Handles;
    return *handles;
}

}  // namespace

uint32_t drvGetDevNum(uint32_t* count) {
    if (count == nullptr) {
        return REFUSED;
    }
    *count = ConfiguredDevices();
    return DONE;
}

uint32_t halSensorNodeRegister(uint32_t device, const HalSensorNodeConfig* config,
                               uint64_t* handle) {
    if (config == nullptr || handle == nullptr) {
        return REFUSED;
    }
    const bool known = device < ConfiguredDevices();
    *handle = known ? AllHandles().Take(device) : 0;
    const auto nameLength = static_cast<int>(strnlen(config->name, sizeof(config->name)));
    return Record(known ? DONE : REFUSED,
                  "register device=%" PRIu32 " node=%.*s type=0x%x sensor=0x%x handle=%" PRIu64,
                  device, nameLength, config->name, static_cast<unsigned>(config->nodeType),
                  static_cast<unsigned>(config->sensorType), *handle);
}

uint32_t halSensorNodeUpdateState(uint32_t device, uint64_t handle, int32_t fault, int32_t event) {
    return Record(AllHandles().Has(device, handle) ? DONE : REFUSED,
                  "update device=%" PRIu32 " handle=%" PRIu64 " assert=%" PRId32 " event=%" PRId32,
                  device, handle, fault, event);
}

uint32_t halSensorNodeUnregister(uint32_t device, uint64_t handle) {
    return Record(AllHandles().GiveBack(device, handle) ? DONE : REFUSED,
                  "unregister device=%" PRIu32 " handle=%" PRIu64, device, handle);
}

uint32_t halGrpCreate(const char* name, uint64_t size) {
    const bool valid = name != nullptr && *name != '\0';
    return Record(valid ? DONE : REFUSED, "group-create name=%s size=%" PRIu64,
                  name != nullptr ? name : "", size);
}

uint32_t halGrpAddProc(const char* name, int32_t pid, const char* access) {
    const std::string_view right = access != nullptr ? access : "";
    const bool valid =
        name != nullptr && *name != '\0' && pid > 0 && (right == "read" || right == "read-write");
    return Record(valid ? DONE : REFUSED, "group-add name=%s pid=%" PRId32 " access=%s",
                  name != nullptr ? name : "", pid, access != nullptr ? access : "");
}
