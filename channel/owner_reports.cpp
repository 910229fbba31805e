#include "channel/owner_reports.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "app/app_spec.h"
#include "channel/report_log.h"
#include "main/common/log.h"
#include "message/enum_names.h"
#include "message/serialization.h"

namespace ProcMgr {

using Message::AppStateInfo;

namespace {

// The length up to which a name always fits into a record.
constexpr size_t LONG_NAME = 3800;

// Whether each item fits into a record; logs the first one that does not.
bool IsPackable(const std::vector<AppStateInfo>& infos) {
    const bool isDoubtful = std::any_of(infos.begin(), infos.end(), [](const AppStateInfo& info) {
        return info.appName.size() > LONG_NAME;
    });
    std::vector<std::pair<uint32_t, std::string>> pieces;
    return !isDoubtful || Serialization::ProcMgrPackAppStateRequest(infos, pieces);
}

Report MakeReport(ReportCause cause, std::vector<AppStateInfo> states) {
    Report report;
    report.cause = cause;
    report.states = std::move(states);
    return report;
}

}  // namespace

bool OwnerReports::Report(ProcMgr::Report report, const std::string& owner) {
    if (!IsPackable(report.states)) {
        LogNotPacked(owner);
        return false;
    }
    if (pipes_.GetServiceFd(owner) > 0) {
        sender_.Post(owner, std::move(report));
        return true;
    }
    LogNoPipe(report, owner);
    // The states are not kept for an owner that has never had a pipe: no picture is ever sent to
    // it.
    if (pipes_.IsKnown(owner)) {
        sender_.Miss(owner, report);
    }
    return false;
}

bool OwnerReports::ReportAppState(const std::vector<AppStateInfo>& infos,
                                  const std::string& owner) {
    return infos.empty() || Report(MakeReport(ReportCause::PLAIN, infos), owner);
}

bool OwnerReports::ReportAppChanges(const std::vector<AppStateInfo>& infos,
                                    const std::string& owner, bool isAnswer) {
    if (infos.empty()) {
        return true;
    }
    const bool isZorn = owner == PROC_ZORNMGR;
    ProcMgr::Report report =
        MakeReport(isZorn ? ReportCause::CHANGES_TO_ZORN : ReportCause::CHANGES_TO_OWNER, infos);
    report.isAnswer = isAnswer;
    return Report(std::move(report), owner);
}

void OwnerReports::ReportAppStateToZorn(const App::AppInfo& app, uint32_t reportType,
                                        uint32_t result) {
    if (app.appName_ != PROC_ZORNMGR) {
        Report(
            MakeReport(ReportCause::STATE_TO_ZORN, {App::MakeStateInfo(app, reportType, result)}),
            PROC_ZORNMGR);
    }
}

bool OwnerReports::ReportAppDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                                         const std::string& owner) {
    ProcMgr::Report report;
    report.statuses = statusByName;
    return statusByName.empty() || Report(std::move(report), owner);
}

void OwnerReports::RegisterVfs() {
    AppStateInfo self;
    self.appName = PROCMGR_NAME;
    self.pid = static_cast<uint32_t>(getpid());
    self.gid = getgid();
    self.reportType = RUNNING_NORMAL_START;
    Report(MakeReport(ReportCause::SELF, {self}), PROC_ZORNMGR);
}

}  // namespace ProcMgr
