// The daemon's settings file: the watchdog, the upload registration and the status endpoint. The
// main thread reads it once, before it starts any other thread. A key that is missing or wrong
// keeps its default, except "enable" of the first two: a section without it switches its feature
// on. The status endpoint opens a door, so only "enable: true" switches it on. watchDogFile and
// watchDogModule are not read from the file.
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
    bool statusEnable = false;
    std::string statusGroup;  // the users that may ask; empty: only root
};

// Fills `settings` from the file at `path`. Logs the settings, and the sections and keys that are
// missing, except the section of the status endpoint.
void LoadProcMgrCfg(const std::string& path, ProcMgrSettings& settings);

// Each reads one section of the file; `top` is the whole file.
void LoadWatchDogCfg(const KvsTypeYaml& top, ProcMgrSettings& settings);
void LoadPmUploadCfg(const KvsTypeYaml& top, ProcMgrSettings& settings);
void LoadStatusCfg(const KvsTypeYaml& top, ProcMgrSettings& settings);

// Each reads one key of its section. A missing "enable" switches the feature on, except the status
// endpoint.
bool GetWatchDogEnable(const KvsTypeYaml& section);
std::string GetWatchDogTimeout(const KvsTypeYaml& section);
std::string GetWatchDogAction(const KvsTypeYaml& section);
bool GetPmuploadEnable(const KvsTypeYaml& section);
bool GetStatusEnable(const KvsTypeYaml& section);
std::string GetStatusGroup(const KvsTypeYaml& section);

}  // namespace ProcMgr
