// What the status endpoint shows of one application, copied under the lock of the record's
// container: few bytes and one shared pointer, so that the copies of many records take no
// noticeable time.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "app/app_facts.h"
#include "app/app_history.h"
#include "app/app_info.h"
#include "message/enum_names.h"

namespace ProcMgr::App {

struct AppView {
    std::shared_ptr<const AppFacts> facts;
    HistoryValues history;
    ProcessState state = INITSTATE;
    int32_t pid = 0;        // 0: no process that is alive
    bool isInList = false;  // false: there is no record of it, no more or not yet
    bool isReady = false;
    bool isLaunching = false;
    bool mayRestart = false;        // base services: the policy allows a restart
    bool isRestartStarted = false;  // general applications, in RESTARTING
    bool isKillSent = false;        // general applications
    bool isKilled = true;           // SIGKILL follows when the time-out is over
    uint32_t termTimeout = 0;       // milliseconds
};

// The part of the view that both kinds of record have; the lock of the container is held.
inline AppView MakeView(const AppInfo& app) {
    AppView view;
    view.facts = app.history_->GetFacts();
    view.history = app.history_->GetValues();
    view.state = app.GetState();
    view.pid = app.IsAlive() ? app.pid_ : 0;
    view.isInList = true;
    view.isLaunching = app.isLaunching_;
    view.termTimeout = app.termTimeout_;
    return view;
}

// The view of an application without a record: it has ended, or its start has failed.
inline AppView MakeView(const AppHistory& history) {
    AppView view;
    view.facts = history.GetFacts();
    view.history = history.GetValues();
    view.state = view.history.lastState;
    return view;
}

// The view of an application that has never been started.
inline AppView MakeView(std::shared_ptr<const AppFacts> facts) {
    AppView view;
    view.facts = std::move(facts);
    return view;
}

}  // namespace ProcMgr::App
