#include "generalapp/state_picture.h"

#include "app/app_spec.h"
#include "baseservice/base_services.h"
#include "generalapp/general_apps.h"

namespace ProcMgr {

std::optional<std::vector<Message::AppStateInfo>> StatePicture::GetPicture(
    const std::string& owner) {
    if (owner != PROC_ZORNMGR) {
        return generalApps_.GetStates(owner);
    }
    if (!baseServices_.IsReady(owner)) {
        return std::nullopt;
    }
    std::vector<Message::AppStateInfo> states = baseServices_.GetStates();
    std::erase_if(states, [](const auto& state) { return state.appName == PROC_ZORNMGR; });
    const std::vector<Message::AppStateInfo> apps = generalApps_.GetStates();
    states.insert(states.end(), apps.begin(), apps.end());
    return states;
}

}  // namespace ProcMgr
