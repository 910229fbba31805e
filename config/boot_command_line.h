// The kernel's boot command line, of which the daemon takes switches of its own:
//
//   procmgr=ITEM,ITEM,...   "nowatchdog": the watchdog module is not loaded
//                           "boot:PATH": base-service YAML in place of the one on the command line
//                           a keyword of OPTIONAL_SERVICES: those services are started, too
//   veskmode=ITEM,...       "kernel_utils"
//   reboot_reason=ITEM,...  "RESUME_FAIL", "SUSPEND_FAIL"
//   slotid=NUMBER           board slot, when the device tree has none
//
// Items are separated by ","; quotes around a value are dropped. Read once, by the main thread
// before any other starts; what it finds is kept here and in ProcMgrEnv.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace ProcMgr {

// Keywords of services that are started only when the boot command line asks for them. A manifest
// belongs to one when a component of its file's path, or the file's name without its suffix, is the
// keyword.
inline constexpr std::string_view OPTIONAL_SERVICES[] = {"debug", "diag", "factory", "trace"};

class BootCommandLine {
public:
    // Reads the files and applies what they say to ProcMgrEnv.
    void Read();

    // Whether the services of the manifest file at `cfgPath` are to be started.
    bool IsEnabled(const std::string& cfgPath);

    // Logs the keywords that were asked for but that no manifest has matched.
    void ReportNotConfigured() const;

private:
    void ReadCommandLine();
    // The items of the first argument whose key is `key`; empty when there is none.
    std::set<std::string> Extract(const std::string& key) const;
    void ApplyOwnItems();
    void ApplyStartupYaml(const std::string& path);
    void ApplyRebootReason();

    std::string text_;
    std::set<std::string> items_;    // of "procmgr"
    std::set<std::string> matched_;  // keywords that a manifest has had
};

// The board's slot id, from the device tree or the boot command line; 0 when neither has it.
int32_t ReadSlotId();

}  // namespace ProcMgr
