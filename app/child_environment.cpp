#include "app/child_environment.h"

#include <array>
#include <optional>

#include "app/launch_plan.h"

namespace ProcMgr::App {
namespace {

constexpr const char* ENV_PROC_PLANE = "PROC_PLANE";

struct Assembly {
    const LaunchPlan& plan;
    EnvironmentBlock& block;
    std::string& error;
};

// Each adds an entry to `error` when a variable cannot be set.

void SetSharePool(const Assembly& to) {
    const SharePoolPlan& pool = to.plan.sharePool;
    if (pool.groups.empty()) {
        return;
    }
    int error = to.block.Set("SHAREPOOL_GROUP_NAME", to.plan.sharePoolNames);
    if (error == 0) {
        error = to.block.Set("SHAREGROUP_PRECONFIG", pool.isPreconfigured ? "1" : "0");
    }
    if (error != 0) {
        to.error += "Set share pool env failed, errno=" + std::to_string(error) + ";";
    }
}

void SetPlane(const Assembly& to) {
    if (const int error = to.block.Set(ENV_PROC_PLANE, to.plan.plane); error != 0) {
        to.error += std::string("SetPlaneEnv ") + ENV_PROC_PLANE +
                    " failed errno=" + std::to_string(error) + ";";
    }
}

void SetHome(const Assembly& to) {
    if (const int error = to.block.Set("HOME", to.plan.home); error != 0) {
        to.error += "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=" + to.plan.home +
                    ", errno=" + std::to_string(error) + ";";
    }
}

// The first variable that cannot be set ends the step: its entry stands once.
void SetConfigured(const Assembly& to) {
    int error = 0;
    for (const auto& [key, value] : to.plan.envs) {
        error = error == 0 ? to.block.Set(key, value) : error;
    }
    if (error == 0 && to.plan.kind == AppKind::GENERAL) {
        error = to.block.Set("OWNER_NAME", to.plan.ownerName);
    }
    if (error != 0) {
        to.error += "setenv failed, errno=" + std::to_string(error) + ";";
    }
}

void SetHeartBeatSwitch(const Assembly& to) {
    const int error = to.plan.heartBeatSwitch ? to.block.Set("GRP_HB", "1") : 0;
    if (error != 0) {
        to.error += "SetHeartBeatSwitchEnv  failed errno=" + std::to_string(error) + ";";
    }
}

void SetPreload(const Assembly& to) {
    const int error = to.plan.preload.empty() ? 0 : to.block.Set("LD_PRELOAD", to.plan.preload);
    if (error != 0) {
        to.error += "SetAppAsanEnv preload failed errno=" + std::to_string(error) + ";";
    }
}

void SetRestartMarker(const Assembly& to) {
    const int error = to.block.Set("IS_RESTART", to.plan.afterAbnormalExit ? "1" : "0");
    if (error != 0) {
        to.error += "Set restart env failed, errno=" + std::to_string(error) + ";";
    }
}

void SetStartupEntry(const Assembly& to) {
    const std::string& path = to.plan.startupEntryPath;
    const int error = path.empty() ? 0 : to.block.Set("STARTUP_ENTRY_PATH", path);
    if (error != 0) {
        to.error += "Set startup entry path env failed, errno=" + std::to_string(error) + ";";
    }
}

struct EnvironmentStep {
    void (*run)(const Assembly& to);
    std::optional<AppKind> kind;  // the kind of application that takes the step; none: both kinds
};

constexpr std::array BEFORE_ACCESS = {
    EnvironmentStep{SetSharePool, {}},
    EnvironmentStep{SetPlane, AppKind::GENERAL},
    EnvironmentStep{SetHome, AppKind::GENERAL},
    EnvironmentStep{SetConfigured, {}},
};
constexpr std::array AFTER_ACCESS = {
    EnvironmentStep{SetHome, AppKind::BASE},
    EnvironmentStep{SetHeartBeatSwitch, AppKind::GENERAL},
    EnvironmentStep{SetPreload, {}},
    EnvironmentStep{SetRestartMarker, AppKind::BASE},
    EnvironmentStep{SetStartupEntry, AppKind::BASE},
};

template <typename Steps>
void Run(const Steps& steps, const Assembly& to) {
    for (const EnvironmentStep& step : steps) {
        if (!step.kind || *step.kind == to.plan.kind) {
            step.run(to);
        }
    }
}

}  // namespace

ChildEnvironment MakeChildEnvironment(const LaunchPlan& plan) {
    ChildEnvironment made;
    Run(BEFORE_ACCESS, {plan, made.block, made.errorBeforeAccess});
    Run(AFTER_ACCESS, {plan, made.block, made.errorAfterAccess});
    return made;
}

}  // namespace ProcMgr::App
