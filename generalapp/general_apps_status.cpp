// What the status endpoint shows of the general applications.
#include <chrono>
#include <utility>

#include "generalapp/general_apps.h"

namespace ProcMgr {
namespace {

// The number of applications that are copied under one hold of the lock.
constexpr size_t COPIES_AT_A_TIME = 64;

App::AppView MakeView(const App::GeneralAppInfo& app) {
    App::AppView view = App::MakeView(app);
    view.isRestartStarted = app.restartStarted_;
    view.isKillSent = app.killSent_;
    view.isKilled = app.forceTerm_ || app.GetState() == RESTARTING;
    return view;
}

}  // namespace

void GeneralApps::KeepHistories(App::ChangeLog& log) {
    const LockGuard lock(mutex_);
    histories_.emplace(log);
}

void GeneralApps::NoteLaunch(App::GeneralAppInfo& app) {
    if (!histories_) {
        return;
    }
    app.history_ = histories_->Take(app, app.owner_);
    app.history_->NoteWaiting(std::chrono::steady_clock::now());
}

std::vector<App::AppView> GeneralApps::GetViews() {
    std::vector<App::AppView> views;
    std::string last;
    for (size_t copied = COPIES_AT_A_TIME; copied == COPIES_AT_A_TIME;) {
        views.reserve(views.size() + COPIES_AT_A_TIME);
        copied = CopyViews(last, views);
    }
    return views;
}

size_t GeneralApps::CopyViews(std::string& last, std::vector<App::AppView>& views) {
    const LockGuard lock(mutex_);
    size_t copied = 0;
    auto entry = generalAppMap_.upper_bound(last);
    for (; entry != generalAppMap_.end() && copied < COPIES_AT_A_TIME; ++entry, ++copied) {
        if (entry->second->history_ != nullptr) {
            views.push_back(MakeView(*entry->second));
        }
        last = entry->first;
    }
    return copied;
}

}  // namespace ProcMgr
