#include "generalapp/change_reports.h"

#include <algorithm>
#include <cstddef>
#include <set>

#include "main/common/log.h"

namespace ProcMgr {

using Message::AppStateInfo;

namespace {

// The number of changes of one application that are held back at most.
constexpr std::ptrdiff_t HELD_BACK_MAX = 64;

bool IsOutdated(const Change& change) {
    return change.record != nullptr && change.record->changes_ != change.seenChanges;
}

}  // namespace

void Answers::Add(std::shared_ptr<const App::GeneralAppInfo> record,
                  ReportAppStateType reportType) {
    const AppStateInfo item = App::MakeStateInfo(*record, reportType, 0);
    const std::string appOwner = record->IsPriority() ? PROC_ZORNMGR : record->owner_;
    const uint64_t seenChanges = record->changes_;
    list_.push_back({owner_, item, appOwner, true, std::move(record), seenChanges});
}

void Answers::AddUnknown(const std::string& name, ReportAppStateType reportType) {
    AppStateInfo item;
    item.appName = name;
    item.reportType = reportType;
    list_.push_back({owner_, item, owner_});
}

void ChangeReports::ReserveForNote() {
    noted_.reserve(noted_.size() + 1);
    heldBack_.reserve(heldBack_.size() + 1);
}

void ChangeReports::Note(App::GeneralAppInfo& app, uint32_t result) {
    const AppStateInfo item = App::MakeStateInfo(app, app.reportType_, result);
    const bool isHeldBack = app.IsPriority() && !IsZornReady();
    const std::string asker = std::exchange(app.asker_, {});
    if (!app.IsPriority()) {
        noted_.push_back({app.owner_, item, app.owner_});
    } else if (!isHeldBack || !asker.empty()) {
        noted_.push_back({asker.empty() ? PROC_ZORNMGR : asker, item, PROC_ZORNMGR, !isHeldBack});
    }
    if (isHeldBack) {
        HoldBack(item);
    }
}

void ChangeReports::HoldBack(const AppStateInfo& item) {
    const auto isSame = [&](const AppStateInfo& other) { return other.appName == item.appName; };
    if (std::count_if(heldBack_.begin(), heldBack_.end(), isSame) >= HELD_BACK_MAX) {
        heldBack_.erase(std::find_if(heldBack_.begin(), heldBack_.end(), isSame));
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : more than %td changes of app=%s wait for zornmgr, the oldest is "
                   "dropped",
                   HELD_BACK_MAX, item.appName.c_str());
    }
    heldBack_.push_back(item);
}

void ChangeReports::QueueNoted() {
    ReportGeneralAppChanges(noted_, false);
    noted_.clear();
}

void ChangeReports::QueueHeldBack() {
    ChangeList changes;
    for (const AppStateInfo& item : heldBack_) {
        changes.push_back({PROC_ZORNMGR, item, PROC_ZORNMGR});
    }
    ReportGeneralAppChanges(changes, false);
    heldBack_.clear();
}

void ChangeReports::QueueHeldBackIfReady() {
    if (!heldBack_.empty() && IsZornReady()) {
        QueueHeldBack();
    }
}

void ChangeReports::QueueAnswers(const Answers& answers) {
    QueueNoted();
    QueueHeldBackIfReady();
    ReportGeneralAppChanges(answers.GetList(), true);
}

// An outdated answer goes only to a requester that does not own the application: the access manager
// and the owner have got the newer report.
void ChangeReports::ReportGeneralAppChanges(const ChangeList& changes, bool isAnswer) {
    if (changes.empty()) {
        return;
    }
    std::vector<AppStateInfo> all;
    for (const Change& change : changes) {
        if (!change.isForZorn || IsOutdated(change)) {
            continue;
        }
        const bool isPriority = change.record != nullptr && change.record->IsPriority();
        if (isPriority && !IsZornReady()) {
            HoldBack(change.item);
        } else {
            all.push_back(change.item);
        }
    }
    ReportInOrder(all, PROC_ZORNMGR, isAnswer);
    for (const std::string& name : owners_.GetOwners()) {
        if (name == PROC_ZORNMGR) {
            continue;
        }
        std::vector<AppStateInfo> own;
        for (const Change& change : changes) {
            const bool isOwnApp = change.appOwner == change.owner;
            if (change.owner == name && !(isOwnApp && IsOutdated(change))) {
                own.push_back(change.item);
            }
        }
        ReportInOrder(own, name, isAnswer);
    }
}

// The items of one report are sorted when it is encoded, so several changes of one application are
// queued as separate reports.
void ChangeReports::ReportInOrder(const std::vector<AppStateInfo>& items, const std::string& owner,
                                  bool isAnswer) {
    std::vector<AppStateInfo> batch;
    std::set<std::string> names;
    for (const AppStateInfo& item : items) {
        if (!names.insert(item.appName).second && !isAnswer) {
            reports_.ReportAppChanges(batch, owner, isAnswer);
            batch.clear();
            names = {item.appName};
        }
        batch.push_back(item);
    }
    reports_.ReportAppChanges(batch, owner, isAnswer);
}

}  // namespace ProcMgr
