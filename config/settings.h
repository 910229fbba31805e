// The daemon's own settings file: the watchdog and the upload registration. Read once, before any
// thread starts; a file that is missing or wrong in part leaves defaults behind.
#pragma once

#include <string>

#include "platform/manifest.h"

namespace ProcMgr {

inline constexpr const char* SETTINGS_FILE = "/etc/vela/base-plat/process-manager/procmgr_cfg.yaml";

struct ProcMgrSettings {
    bool watchDogEnable = false;
    std::string watchDogTimeout = "60";  // decimal digits, seconds
    std::string watchDogAction = "2";    // "0", "1" or "2"
    std::string watchDogFile = "/var/sbsa_gwdt.ko";
    std::string watchDogModule = "sbsa_gwdt";
    bool pmuploadEnable = false;
};

// Fills `settings` from the file at `path`. Logs what it finds and what is missing.
void LoadProcMgrCfg(const std::string& path, ProcMgrSettings& settings);

// One section each, out of the top of the file.
void LoadWatchDogCfg(const KvsTypeYaml& top, ProcMgrSettings& settings);
void LoadPmUploadCfg(const KvsTypeYaml& top, ProcMgrSettings& settings);

// One key each, out of its section. A missing enable key switches the feature on.
bool GetWatchDogEnable(const KvsTypeYaml& section);
std::string GetWatchDogTimeout(const KvsTypeYaml& section);
std::string GetWatchDogAction(const KvsTypeYaml& section);
bool GetPmuploadEnable(const KvsTypeYaml& section);

}  // namespace ProcMgr
