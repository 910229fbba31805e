#include "generalapp/change_reports.h"

#include <algorithm>
#include <set>

#include "main/common/log.h"

namespace ProcMgr {

using Message::AppStateInfo;

namespace {

// The number of changes of one application that are held back at most.
constexpr int HELD_BACK_MAX = 64;

bool IsOutdated(const Change& change) {
    return change.record != nullptr && change.record->changes_ != change.seenChanges;
}

template <typename Item>
void ReserveFor(std::vector<Item>& list, size_t count) {
    if (list.capacity() - list.size() < count) {
        list.reserve(2 * list.size() + count);
    }
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

void ChangeReports::ReserveForNote(const App::GeneralAppInfo& app) {
    ReserveFor(noted_, 2);  // for the owner and for the asker
    // Even when the access manager is ready: it may end before the note.
    if (app.IsPriority()) {
        ReserveFor(heldBack_, 1);
        heldBackOf_.try_emplace(app.appName_, 0);
    }
}

void ChangeReports::Note(App::GeneralAppInfo& app, uint32_t result) {
    const AppStateInfo item = App::MakeStateInfo(app, app.reportType_, result);
    const bool isHeldBack = app.IsPriority() && !IsZornReady();
    const std::string asker = std::exchange(app.asker_, {});
    if (!app.IsPriority()) {
        noted_.push_back({app.owner_, item, app.owner_});
        if (!asker.empty() && asker != app.owner_) {
            noted_.push_back({asker, item, app.owner_, false});
        }
    } else if (!isHeldBack || !asker.empty()) {
        noted_.push_back({asker.empty() ? PROC_ZORNMGR : asker, item, PROC_ZORNMGR, !isHeldBack});
    }
    if (isHeldBack) {
        HoldBack(item);
    }
}

void ChangeReports::HoldBack(const AppStateInfo& item) {
    int& count = heldBackOf_[item.appName];
    if (count == HELD_BACK_MAX) {
        heldBack_.erase(
            std::find_if(heldBack_.begin(), heldBack_.end(),
                         [&](const AppStateInfo& other) { return other.appName == item.appName; }));
        --count;
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : more than %d changes of app=%s wait for zornmgr, the oldest is "
                   "dropped",
                   HELD_BACK_MAX, item.appName.c_str());
    }
    heldBack_.push_back(item);
    ++count;
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
    heldBackOf_.clear();
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
    ReportToOwners(changes, isAnswer);
}

void ChangeReports::ReportToOwners(const ChangeList& changes, bool isAnswer) {
    std::map<std::string, std::vector<AppStateInfo>> byOwner;
    std::vector<std::string> names;
    for (const Change& change : changes) {
        const bool isOwnApp = change.appOwner == change.owner;
        if (change.owner == PROC_ZORNMGR || (isOwnApp && IsOutdated(change))) {
            continue;
        }
        const auto [own, isNew] = byOwner.try_emplace(change.owner);
        own->second.push_back(change.item);
        if (isNew) {
            names.push_back(change.owner);
        }
    }
    for (const std::string& name : owners_.GetOwnersAmong(names)) {
        ReportInOrder(byOwner.at(name), name, isAnswer);
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
