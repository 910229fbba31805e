// The present states of all processes, as they are sent to an owner that has missed reports. The
// report sender asks for them on the thread that sends.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "channel/report_sender.h"
#include "message/request_msg.h"

namespace ProcMgr {

class BaseServices;
class GeneralApps;

class StatePicture final : public PictureSource {
public:
    // Both must outlive this object.
    StatePicture(BaseServices& baseServices, GeneralApps& generalApps)
        : baseServices_(baseServices), generalApps_(generalApps) {}

    // The access manager gets the states of all processes but its own, once it is ready. Any other
    // owner gets those of the applications that it receives reports about. Takes the containers'
    // locks, one after the other.
    std::optional<std::vector<Message::AppStateInfo>> GetPicture(const std::string& owner) override;

private:
    BaseServices& baseServices_;
    GeneralApps& generalApps_;
};

}  // namespace ProcMgr
