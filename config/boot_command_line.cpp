#include "config/boot_command_line.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "main/common/log.h"
#include "main/common/numbers.h"
#include "main/common/paths.h"
#include "main/common/proc_files.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr {
namespace {

constexpr const char* SELINUX_ENFORCE = "/sys/fs/selinux/enforce";
constexpr const char* DEVICE_TREE_SLOT = "/proc/device-tree/slot-id";
constexpr const char* KEY_PROCMGR = "procmgr";
constexpr const char* KEY_REBOOT_REASON = "reboot_reason";
constexpr const char* KEY_VESKMODE = "veskmode";
constexpr const char* KEY_SLOT = "slotid=";
constexpr const char* ITEM_NO_WATCHDOG = "nowatchdog";
constexpr const char* ITEM_KERNEL_UTILS = "kernel_utils";
constexpr std::string_view ITEM_BOOT = "boot:";
constexpr std::array REBOOT_FAILURES = {"RESUME_FAIL", "SUSPEND_FAIL"};
// The longest text that is read, in bytes; the command lines of kernels are shorter.
constexpr size_t TEXT_MAX = 65536;

std::string ReadText(const char* path) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path, "re"), std::fclose);
    if (file == nullptr) {
        return {};
    }
    std::string text(TEXT_MAX, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) {
        text.pop_back();
    }
    text.shrink_to_fit();
    return text;
}

bool IsSelinuxEnforcing() {
    return ReadText(SELINUX_ENFORCE) == "1";
}

std::string_view DropQuotes(std::string_view text) {
    const bool isQuoted = text.size() >= 2 && text.front() == text.back() &&
                          (text.front() == '"' || text.front() == '\'');
    return isQuoted ? text.substr(1, text.size() - 2) : text;
}

std::set<std::string> Split(std::string_view text) {
    std::set<std::string> items;
    while (!text.empty()) {
        const size_t comma = std::min(text.find(','), text.size());
        if (comma > 0) {
            items.emplace(text.substr(0, comma));
        }
        text.remove_prefix(std::min(comma + 1, text.size()));
    }
    return items;
}

// A device-tree cell is a big-endian number of 32 bits.
std::optional<int32_t> ReadDeviceTreeCell(const char* path) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path, "re"), std::fclose);
    std::array<unsigned char, 4> cell{};
    if (file == nullptr || std::fread(cell.data(), cell.size(), 1, file.get()) != 1) {
        return std::nullopt;
    }
    uint32_t number = 0;
    for (const unsigned char byte : cell) {
        number = number << 8 | byte;
    }
    return static_cast<int32_t>(number);
}

}  // namespace

std::vector<std::string> OptionalKeywordsOf(const std::string& cfgPath) {
    const std::filesystem::path path(cfgPath);
    std::vector<std::string> keywords;
    for (const std::string_view keyword : OPTIONAL_SERVICES) {
        const bool isComponent = std::find(path.begin(), path.end(), keyword) != path.end();
        if (isComponent || path.stem() == keyword) {
            keywords.emplace_back(keyword);
        }
    }
    return keywords;
}

void BootCommandLine::Read() {
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.SetSelinuxEnable(IsSelinuxEnforcing());
    ProcMgrLog(LOG_INFO, "pm UpdateSelinuxEnable success: enable=%d", env.IsSelinuxEnable());
    Take(ReadText(KERNEL_COMMAND_LINE));
}

void BootCommandLine::Take(std::string text) {
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    text_ = std::move(text);
    items_ = Extract(KEY_PROCMGR);
    ApplyOwnItems();
    env.SetVeskcoreEnable(Extract(KEY_VESKMODE).contains(ITEM_KERNEL_UTILS));
    ProcMgrLog(LOG_INFO, "ProcMgr: cmdline veskcoreEnable=%u", env.IsVeskcoreEnable());
    ApplyRebootReason();
}

std::set<std::string> BootCommandLine::Extract(const std::string& key) const {
    const size_t found = text_.find(key);
    if (found == std::string::npos) {
        ProcMgrLog(LOG_INFO, "key=%s not found in cmdline.", key.c_str());
        return {};
    }
    // The value begins after the key and the "=" that follows it.
    const size_t begin = std::min(found + key.size() + 1, text_.size());
    const size_t end = std::min(text_.find(' ', begin), text_.size());
    const std::string value = text_.substr(begin, end - begin);
    ProcMgrLog(LOG_INFO, "ProcMgr boot args, %s=%s", key.c_str(), value.c_str());
    return Split(DropQuotes(value));
}

void BootCommandLine::ApplyOwnItems() {
    ProcMgrEnv& env = ProcMgrEnv::GetInstance();
    env.SetDisableWatchDog(items_.contains(ITEM_NO_WATCHDOG));
    ProcMgrLog(LOG_INFO, "ProcMgr: cmdline disableWatchDog_=%u", env.IsWatchDogDisabled());
    for (const std::string_view keyword : OPTIONAL_SERVICES) {
        if (items_.contains(std::string(keyword))) {
            ProcMgrLog(LOG_INFO, "ProcMgr: %s need enable", std::string(keyword).c_str());
        }
    }
    for (const std::string& item : items_) {
        if (item.starts_with(ITEM_BOOT)) {
            ApplyStartupYaml(item.substr(ITEM_BOOT.size()));
            return;
        }
    }
}

void BootCommandLine::ApplyStartupYaml(const std::string& path) {
    ProcMgrLog(LOG_INFO, "ProcMgr: cmdline cfg startup yaml: %s", path.c_str());
    std::string normalised;
    if (!StandardizationPath(path, normalised)) {
        ProcMgrLog(LOG_INFO,
                   "ProcMgr: cmdline cfg startup yaml %s standardizationPath failed,use default "
                   "path",
                   path.c_str());
        return;
    }
    ProcMgrEnv::GetInstance().SetStartupYaml(normalised);
}

void BootCommandLine::ApplyRebootReason() {
    const std::set<std::string> reasons = Extract(KEY_REBOOT_REASON);
    for (const char* failure : REBOOT_FAILURES) {
        if (reasons.contains(failure)) {
            ProcMgrLog(LOG_WARNING, "ProcMgr: cmdline reboot_reason=%s", failure);
            ProcMgrEnv::GetInstance().SetRebootReason(failure);
        }
    }
}

bool BootCommandLine::IsEnabled(const std::string& cfgPath) {
    if (cfgPath != cfgPath_) {
        keywords_ = OptionalKeywordsOf(cfgPath);
        cfgPath_ = cfgPath;
    }
    if (keywords_.empty()) {
        return true;
    }
    if (items_.empty()) {
        ProcMgrLog(LOG_INFO, "ProcMgr: %s will not enable as not configured in cmdline",
                   cfgPath.c_str());
        return false;
    }
    matched_.insert(keywords_.begin(), keywords_.end());
    return std::all_of(keywords_.begin(), keywords_.end(),
                       [this](const std::string& keyword) { return items_.contains(keyword); });
}

std::vector<std::string> BootCommandLine::GetNotConfigured() const {
    std::vector<std::string> names;
    for (const std::string_view keyword : OPTIONAL_SERVICES) {
        std::string name(keyword);
        if (items_.contains(name) && !matched_.contains(name)) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

void BootCommandLine::ReportNotConfigured() const {
    for (const std::string& name : GetNotConfigured()) {
        ProcMgrLog(LOG_INFO, "%s need enable, but not rightly configured", name.c_str());
    }
}

int32_t ReadSlotId() {
    if (const auto cell = ReadDeviceTreeCell(DEVICE_TREE_SLOT)) {
        return *cell;
    }
    const std::string text = ReadText(KERNEL_COMMAND_LINE);
    const std::string_view key(KEY_SLOT);
    const size_t found = text.find(key);
    if (found == std::string::npos) {
        return 0;
    }
    const size_t begin = found + key.size();
    const size_t end = std::min(text.find(' ', begin), text.size());
    return ParseNumber<int32_t>(std::string_view(text).substr(begin, end - begin)).value_or(0);
}

}  // namespace ProcMgr
