// The periodic checks of the check thread: the placement of processes and threads, together with
// the recovery after a suspend of the system, the registrations of the "pmupload" server, and an
// absent system logger.
#pragma once

#include "main/common/check_loop.h"
#include "main/common/log.h"
#include "resource/affinity_check.h"
#include "resource/delay_core_affinity.h"
#include "resource/upload_registry.h"
#include "resource/wake_up_watch.h"

namespace ProcMgr {

// Places the daemon's own threads and those of the priority applications, and restores all
// placements after the system has been suspended.
class PlacementCheck final : public PeriodicCheck {
public:
    // Both must outlive this object.
    PlacementCheck(AffinityCheck& affinityCheck, DelayCoreAffinity& delayCoreAffinity)
        : affinityCheck_(affinityCheck), delayCoreAffinity_(delayCoreAffinity) {}

    void Run() override;
    bool IsWanted() const override { return isRecoveryDue_ || affinityCheck_.IsWanted(); }

    // The platform calls the daemon back before a suspend and after the resume, on any thread.
    // After an announced suspend Run() does not repeat the recovery.
    void Suspend() { delayCoreAffinity_.Suspend(); }
    void WakeUpRecover();

private:
    AffinityCheck& affinityCheck_;
    DelayCoreAffinity& delayCoreAffinity_;
    WakeUpWatch wakeUpWatch_;
    // Used by the check thread only. True from the detection of a suspend until the recovery has
    // been made.
    bool isRecoveryDue_ = false;
};

// Looks whether an absent system logger has come.
class LoggerCheck final : public PeriodicCheck {
public:
    void Run() override { LookForLogger(); }
    bool IsWanted() const override { return IsLoggerMissing(); }
};

// Drops the upload registrations of processes that are gone.
class UploadCheck final : public PeriodicCheck {
public:
    // `registry` must outlive this object.
    explicit UploadCheck(UploadRegistry& registry) : registry_(registry) {}

    void Run() override { registry_.DropGone(); }
    bool IsWanted() const override { return !registry_.IsEmpty(); }

private:
    UploadRegistry& registry_;
};

}  // namespace ProcMgr
