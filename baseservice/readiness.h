// The reports of base services about their own state, above all that they are ready, and what is
// sent to the access manager when it becomes ready for the first time or again after a restart.
// Called on threads of the messaging library, several at a time.
#pragma once

#include <atomic>
#include <string>

#include "message/enum_names.h"

namespace ProcMgr {

class BaseServices;
class OwnerReports;
class ReportSender;

// The reports about applications that are held back until the access manager is ready. Implemented
// by GeneralApps.
class HeldBackReports {
public:
    virtual ~HeldBackReports() = default;

    // Queues and sends them, when the access manager is ready. Takes locks of its own.
    virtual void ReportHeldBack() = 0;
};

class Readiness {
public:
    // All must outlive this object.
    Readiness(BaseServices& services, OwnerReports& reports, ReportSender& sender,
              HeldBackReports& heldBack)
        : services_(services), reports_(reports), sender_(sender), heldBack_(heldBack) {}

    // Handles the report of the service `owner` that it is in `state`.
    void HandleBaseServiceState(const std::string& owner, BaseServiceStateType state);

private:
    // Stores that the present process of the service is ready, and sends the reports that were held
    // back until then.
    void HandleReady(const std::string& owner);
    // Queues the report about the daemon itself and a picture.
    void IntroduceTo(const std::string& accessManager);

    BaseServices& services_;
    OwnerReports& reports_;
    ReportSender& sender_;
    HeldBackReports& heldBack_;
    // The access manager has been ready once since the daemon's start. From then on each new
    // process of the access manager receives all states again.
    std::atomic<bool> wasZornReady_{false};
};

}  // namespace ProcMgr
