// The reports about general applications on their way to the report queue: changes that supervision
// has found, changes of priority applications that wait until the access manager is ready, and the
// answers to a request. A part of GeneralApps, which calls every function with its lock held.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "app/general_app_info.h"
#include "app/owner_link.h"
#include "baseservice/owner_services.h"
#include "message/request_msg.h"

namespace ProcMgr {

// One item of a report.
struct Change {
    std::string owner;  // the service that gets the item, besides the access manager
    Message::AppStateInfo item;
    std::string appOwner;  // the owner of the application
    bool isForZorn = true;
    // Of an answer about a known application: its record, and the value of changes_ in the record
    // when the answer was made. Another value later means that supervision has reported a newer
    // state.
    std::shared_ptr<const App::GeneralAppInfo> record = nullptr;
    uint64_t seenChanges = 0;
};
// In the order of the changes.
using ChangeList = std::vector<Change>;

// The answers to one request, in the order of its items. Belongs to the thread that handles the
// request; Add() reads a record, so its caller holds the lock.
class Answers {
public:
    // `owner`: the service that has sent the request.
    explicit Answers(std::string owner) : owner_(std::move(owner)) {}

    const std::string& GetOwner() const { return owner_; }
    const ChangeList& GetList() const { return list_; }

    void Add(std::shared_ptr<const App::GeneralAppInfo> record, ReportAppStateType reportType);
    // Adds an answer about a name for which there is neither a record nor a configuration entry.
    void AddUnknown(const std::string& name, ReportAppStateType reportType);

private:
    const std::string owner_;
    ChangeList list_;
};

class ChangeReports {
public:
    // Both must outlive this object.
    ChangeReports(App::StateReports& reports, OwnerServices& owners)
        : reports_(reports), owners_(owners) {}

    // Reserves memory for one Note() about the application, so that Note() cannot fail after the
    // state of the record has been changed.
    void ReserveForNote(const App::GeneralAppInfo& app);

    // Keeps the change that supervision has found in the record, with `result` as the result field
    // of its report, until QueueNoted(). The change of a priority application is held back instead
    // while the access manager is not ready; the service that requested the start gets its report
    // all the same.
    void Note(App::GeneralAppInfo& app, uint32_t result);

    // Keeps an item of a priority application until the access manager is ready: 64 of each
    // application at most, then the oldest one is dropped, with a log line.
    void HoldBack(const Message::AppStateInfo& item);

    // These put reports into the queue of the channel. A list is emptied only after its reports
    // have been queued, because the records do not report the same change again.
    void QueueNoted();
    void QueueHeldBack();
    void QueueHeldBackIfReady();
    // Queues the noted and the held-back changes first, then the answers whose record has not been
    // reported with a newer state since.
    void QueueAnswers(const Answers& answers);

private:
    bool IsZornReady() { return owners_.IsReady(PROC_ZORNMGR); }
    // Queues the items for the access manager, then for each owner its own ones.
    void ReportGeneralAppChanges(const ChangeList& changes, bool isAnswer);
    void ReportToOwners(const ChangeList& changes, bool isAnswer);
    void ReportInOrder(const std::vector<Message::AppStateInfo>& items, const std::string& owner,
                       bool isAnswer);

    App::StateReports& reports_;
    OwnerServices& owners_;
    ChangeList noted_;
    std::vector<Message::AppStateInfo> heldBack_;
    std::map<std::string, int> heldBackOf_;  // the number of items in heldBack_, by application
};

}  // namespace ProcMgr
