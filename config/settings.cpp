#include "config/settings.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "config/settings_keys.h"
#include "main/common/log.h"
#include "message/enum_names.h"

namespace ProcMgr {
namespace {

using namespace std::string_view_literals;

constexpr const char* WATCH_DOG = "watch_dog";
constexpr const char* PMUPLOAD = "pmupload";
constexpr const char* STATUS = "status";
constexpr const char* ENABLE = "enable";
constexpr const char* GROUP = "group";
constexpr const char* TIMEOUT = "timeout";
constexpr const char* ACTION = "action";
constexpr const char* DEFAULT_TIMEOUT = "60";
constexpr const char* DEFAULT_ACTION = "2";
constexpr std::array ACTIONS = {"0"sv, "1"sv, "2"sv};

constexpr std::array KEYS = {
    SettingKey{WATCH_DOG, ENABLE, SettingKind::SWITCH},
    SettingKey{WATCH_DOG, TIMEOUT, SettingKind::SECONDS},
    SettingKey{WATCH_DOG, ACTION, SettingKind::ACTION},
    SettingKey{PMUPLOAD, ENABLE, SettingKind::SWITCH},
    SettingKey{STATUS, ENABLE, SettingKind::SWITCH},
    SettingKey{STATUS, GROUP, SettingKind::GROUP},
};

}  // namespace

std::span<const SettingKey> SettingKeys() {
    return KEYS;
}

bool IsSettingValue(SettingKind kind, const std::string& text) {
    switch (kind) {
        case SettingKind::SWITCH:
            return true;
        case SettingKind::SECONDS:
            return !text.empty() && IsStrDigits(text);
        case SettingKind::ACTION:
            return std::find(ACTIONS.begin(), ACTIONS.end(), text) != ACTIONS.end();
        case SettingKind::GROUP:
            return !text.empty();
    }
    return false;
}

void LoadProcMgrCfg(const std::string& path, ProcMgrSettings& settings) {
    if (access(path.c_str(), R_OK) != 0) {
        ProcMgrLog(LOG_ERR, "LoadProcMgrCfg file=%s failed. errno=%d", path.c_str(), errno);
        return;
    }
    KvsTypeYaml top;
    if (!top.InitYamlNode(path)) {
        ProcMgrLog(LOG_ERR, "LoadProcMgrCfg file=%s failed. init yaml node failed", path.c_str());
        return;
    }
    LoadWatchDogCfg(top, settings);
    LoadPmUploadCfg(top, settings);
    LoadStatusCfg(top, settings);
}

void LoadWatchDogCfg(const KvsTypeYaml& top, ProcMgrSettings& settings) {
    KvsTypeYaml section;
    if (!top.GetSubKvs(WATCH_DOG, section)) {
        ProcMgrLog(LOG_ERR, "LoadWatchDogCfg not exist %s key", WATCH_DOG);
        return;
    }
    settings.watchDogEnable = GetWatchDogEnable(section);
    settings.watchDogTimeout = GetWatchDogTimeout(section);
    settings.watchDogAction = GetWatchDogAction(section);
    ProcMgrLog(LOG_INFO, "PROCMGR: LoadWatchDogCfg finish enable=%d, wdTimeout=%s s, wdAction=%s",
               settings.watchDogEnable, settings.watchDogTimeout.c_str(),
               settings.watchDogAction.c_str());
}

void LoadPmUploadCfg(const KvsTypeYaml& top, ProcMgrSettings& settings) {
    KvsTypeYaml section;
    if (!top.GetSubKvs(PMUPLOAD, section)) {
        ProcMgrLog(LOG_ERR, "LoadPmUploadCfg not exist %s key", PMUPLOAD);
        return;
    }
    settings.pmuploadEnable = GetPmuploadEnable(section);
    ProcMgrLog(LOG_INFO, "PROCMGR: LoadPmUploadCfg finish enable=%d", settings.pmuploadEnable);
}

void LoadStatusCfg(const KvsTypeYaml& top, ProcMgrSettings& settings) {
    KvsTypeYaml section;
    if (!top.GetSubKvs(STATUS, section)) {
        return;
    }
    settings.statusEnable = GetStatusEnable(section);
    settings.statusGroup = GetStatusGroup(section);
    ProcMgrLog(LOG_INFO, "PROCMGR: LoadStatusCfg finish enable=%d, group=%s", settings.statusEnable,
               settings.statusGroup.c_str());
}

bool GetWatchDogEnable(const KvsTypeYaml& section) {
    KvsTypeYaml value;
    if (!section.GetSubKvs(ENABLE, value)) {
        ProcMgrLog(LOG_WARNING, "GetWatchDogEnable is null !");
        return true;
    }
    return value.GetBool();
}

std::string GetWatchDogTimeout(const KvsTypeYaml& section) {
    KvsTypeYaml value;
    if (!section.GetSubKvs(TIMEOUT, value)) {
        ProcMgrLog(LOG_WARNING, "GetWatchDogTimeout is null !");
        return DEFAULT_TIMEOUT;
    }
    const std::string text = value.GetString();
    return IsSettingValue(SettingKind::SECONDS, text) ? text : DEFAULT_TIMEOUT;
}

std::string GetWatchDogAction(const KvsTypeYaml& section) {
    KvsTypeYaml value;
    if (!section.GetSubKvs(ACTION, value)) {
        ProcMgrLog(LOG_WARNING, "GetWatchDogAction is null !");
        return DEFAULT_ACTION;
    }
    const std::string text = value.GetString();
    return IsSettingValue(SettingKind::ACTION, text) ? text : DEFAULT_ACTION;
}

bool GetPmuploadEnable(const KvsTypeYaml& section) {
    KvsTypeYaml value;
    if (!section.GetSubKvs(ENABLE, value)) {
        ProcMgrLog(LOG_WARNING, "GetPmuploadEnable is null !");
        return true;
    }
    return value.GetBool();
}

bool GetStatusEnable(const KvsTypeYaml& section) {
    KvsTypeYaml value;
    return section.GetSubKvs(ENABLE, value) && value.GetBool();
}

std::string GetStatusGroup(const KvsTypeYaml& section) {
    KvsTypeYaml value;
    return section.GetSubKvs(GROUP, value) ? value.GetString() : std::string();
}

}  // namespace ProcMgr
