// The part of AppSpec that fills in the values of a start request for the patterns of a manifest.
#include <climits>

#include "app/app_spec.h"
#include "main/common/log.h"

namespace ProcMgr::App {
namespace {

// The index of a list of values in a start request.
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

// The number of a text of digits, 0 for an empty text. -1 for any other text and for a number above
// 2147483647.
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
    if (patterns_ == nullptr) {
        return true;
    }
    if (patterns_->dynamicArguments_) {
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
    if (patterns_ == nullptr || !patterns_->dynamicExecPath_) {
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
    if (!ParseAndDepend::IsDynamicParaMatch(patterns_->execPathPattern_, value)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : dynamic execPath invalid, pattern=%s, execPath=%s",
                   patterns_->execPathPattern_.c_str(), value.c_str());
        return false;
    }
    execPath_ = value;
    ProcMgrLog(LOG_INFO, "PROCMGR : UpdateExecvPath dynamic appName=%s, execPath=%s",
               appName_.c_str(), execPath_.c_str());
    return true;
}

bool AppSpec::UpdateVfId(const Values& values) {
    if (patterns_ == nullptr || !patterns_->dynamicVfId_) {
        return true;
    }
    if (values.empty()) {
        ProcMgrLog(LOG_WARNING, "PROCMGR : dynamic vfid vector size invalid, use default value");
        vfId_ = -1;
        return true;
    }
    const std::string& value = values.front();
    if (!ParseAndDepend::IsDynamicParaMatch(patterns_->vfIdPattern_, value)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : dynamic vfid invalid, pattern=%s, vfid=%s",
                   patterns_->vfIdPattern_.c_str(), value.c_str());
        return false;
    }
    vfId_ = ParseVfId(value);
    ProcMgrLog(LOG_INFO, "PROCMGR : UpdateVfId dynamic appName=%s, vfId=%d", appName_.c_str(),
               vfId_);
    return true;
}

bool AppSpec::UpdateEnv(const Values& values) {
    if (patterns_ == nullptr || patterns_->envPatterns_.empty()) {
        return true;
    }
    const std::map<std::string, std::string>& patterns = patterns_->envPatterns_;
    envs_.clear();
    std::string summary;
    const auto set = [&](const std::string& key, const std::string& value) {
        envs_[key] = value;
        summary += (summary.empty() ? "" : " ") + key + "=" + value;
    };
    for (const auto& [key, value] : patterns) {
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
        const auto pattern = patterns.find(key);
        if (pattern == patterns.end()) {
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
