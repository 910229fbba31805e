// The values that a start request supplies for the patterns of a manifest.
#include <climits>

#include "app/app_spec.h"
#include "main/common/log.h"

namespace ProcMgr::App {
namespace {

enum Index : int { EXEC_PATH = 0, VF_ID = 1, ENVIRONMENT = 2 };

using Values = std::vector<std::string>;

struct Parameter {
    Index index;
    bool (AppSpec::*update)(const Values& values);
};

constexpr Parameter PARAMETERS[] = {
    {EXEC_PATH, &AppSpec::UpdateExecvPath},
    {VF_ID, &AppSpec::UpdateVfId},
    {ENVIRONMENT, &AppSpec::UpdateEnv},
};

// Digits only; an empty text is 0, anything else and what is too large is -1.
int32_t ParseVfId(const std::string& text) {
    int64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return -1;
        }
        value = value * 10 + (c - '0');
        if (value > INT32_MAX) {
            return -1;
        }
    }
    return static_cast<int32_t>(value);
}

}  // namespace

bool AppSpec::UpdateDynamicPara(const Values& argv, const std::map<int, Values>& dynamicPara) {
    if (!isDynamicPara_) {
        return true;
    }
    if (dynamicArguments_) {
        arguments_ = argv;
    }
    for (const Parameter& parameter : PARAMETERS) {
        const auto values = dynamicPara.find(parameter.index);
        if (!(this->*parameter.update)(values == dynamicPara.end() ? Values() : values->second)) {
            return false;
        }
    }
    return true;
}

bool AppSpec::UpdateExecvPath(const Values& values) {
    if (!dynamicExecPath_) {
        return true;
    }
    if (values.size() != 1) {
        ProcMgrLog(LOG_ERR, "PROCMGR : dynamic execPath vector size invalid, %zu", values.size());
        return false;
    }
    const std::string& value = values.front();
    if (value.empty()) {
        ProcMgrLog(LOG_ERR, "PROCMGR : dynamic execPath invalid, is empty");
        return false;
    }
    if (!ParseAndDepend::IsDynamicParaMatch(execPathPattern_, value)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : dynamic execPath invalid, pattern=%s, execPath=%s",
                   execPathPattern_.c_str(), value.c_str());
        return false;
    }
    execPath_ = value;
    ProcMgrLog(LOG_INFO, "PROCMGR : UpdateExecvPath dynamic appName=%s, execPath=%s",
               appName_.c_str(), execPath_.c_str());
    return true;
}

bool AppSpec::UpdateVfId(const Values& values) {
    if (!dynamicVfId_) {
        return true;
    }
    if (values.empty()) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : dynamic vfid vector size invalid, use default value");
        vfId_ = -1;
        return true;
    }
    const std::string& value = values.front();
    if (!ParseAndDepend::IsDynamicParaMatch(vfIdPattern_, value)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : dynamic vfid invalid, pattern=%s, vfid=%s",
                   vfIdPattern_.c_str(), value.c_str());
        return false;
    }
    vfId_ = ParseVfId(value);
    ProcMgrLog(LOG_INFO, "PROCMGR : UpdateVfId dynamic appName=%s, vfId=%d", appName_.c_str(),
               vfId_);
    return true;
}

bool AppSpec::UpdateEnv(const Values& values) {
    if (envPatterns_.empty()) {
        return true;
    }
    envs_.clear();
    std::string summary;
    const auto set = [&](const std::string& key, const std::string& value) {
        envs_[key] = value;
        summary += (summary.empty() ? "" : " ") + key + "=" + value;
    };
    for (const auto& [key, value] : envPatterns_) {
        if (!ParseAndDepend::IsDynamicPara(value)) {
            set(key, value);
        }
    }
    for (const std::string& text : values) {
        const size_t equals = text.find('=');
        if (equals == std::string::npos || equals == 0 || equals + 1 == text.size()) {
            ProcMgrLog(LOG_ERR, "PROCMGR : dynamic env invalid, %s", text.c_str());
            return false;
        }
        const std::string key = text.substr(0, equals);
        const std::string value = text.substr(equals + 1);
        const auto pattern = envPatterns_.find(key);
        if (pattern == envPatterns_.end()) {
            ProcMgrLog(LOG_WARNING, "PROCMGR : dynamic env key not in yaml cfg, %s, ignore it",
                       key.c_str());
            continue;
        }
        if (!ParseAndDepend::IsDynamicParaMatch(pattern->second, value)) {
            ProcMgrLog(LOG_ERR, "PROCMGR : dynamic env value invalid, key=%s, pattern=%s, env=%s",
                       key.c_str(), pattern->second.c_str(), value.c_str());
            return false;
        }
        set(key, value);
    }
    ProcMgrLog(LOG_INFO, "PROCMGR : UpdateEnv dynamic appName=%s, env=%s", appName_.c_str(),
               summary.c_str());
    return true;
}

}  // namespace ProcMgr::App
