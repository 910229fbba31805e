// The switches of the daemon on the kernel's boot command line:
//
//   procmgr=ITEM,ITEM,...   "nowatchdog": the watchdog module is not loaded
//                           "boot:PATH": base-service file that replaces the daemon's argument
//                           a keyword of OPTIONAL_SERVICES: its services are started, too
//   veskmode=ITEM,...       "kernel_utils"
//   reboot_reason=ITEM,...  "RESUME_FAIL", "SUSPEND_FAIL"
//   slotid=NUMBER           board slot, when the device tree does not give it
//
// Items are separated by ","; quotes around a value are dropped. The main thread reads the command
// line once, before it starts any other thread; base start-up then asks which services are enabled.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace ProcMgr {

// Keywords of services that are started only when the boot command line has the keyword. A manifest
// has a keyword when a component of its file's path, or the file's name without its suffix, is
// equal to the keyword.
inline constexpr std::string_view OPTIONAL_SERVICES[] = {"debug", "diag", "factory", "trace"};

// The keywords that are a component of the path or the name of the file without its suffix.
std::vector<std::string> OptionalKeywordsOf(const std::string& cfgPath);

class BootCommandLine {
public:
    // Reads the SELinux state and the command line, and stores the switches here and in ProcMgrEnv.
    void Read();

    // Stores the switches of `text`, a command line from elsewhere, here and in ProcMgrEnv.
    void Take(std::string text);

    // Whether the services of the manifest file at `cfgPath` are to be started.
    bool IsEnabled(const std::string& cfgPath);

    // The keywords of the command line that no manifest has had.
    std::vector<std::string> GetNotConfigured() const;
    // Logs them.
    void ReportNotConfigured() const;

private:
    // The items of the first argument whose key is `key`; empty when there is none.
    std::set<std::string> Extract(const std::string& key) const;
    void ApplyOwnItems();
    void ApplyStartupYaml(const std::string& path);
    void ApplyRebootReason();

    // The last path that IsEnabled() was asked about, and its keywords: the manifests of one file
    // come one after the other.
    std::string cfgPath_;
    std::vector<std::string> keywords_;

    std::string text_;
    std::set<std::string> items_;  // of "procmgr"
    std::set<std::string>
        matched_;  // the keywords of the manifests that IsEnabled() was asked about
};

// The board's slot id from the device tree or else the boot command line; 0 when neither gives it.
int32_t ReadSlotId();

}  // namespace ProcMgr
