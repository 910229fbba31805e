// What the status endpoint shows of the general applications.
#include <algorithm>
#include <chrono>
#include <iterator>
#include <memory>
#include <utility>

#include "generalapp/general_apps.h"

namespace ProcMgr {
namespace {

// The number of applications that are copied under one hold of a lock.
constexpr size_t COPIES_AT_A_TIME = 64;
// The number of applications that are shown though they have never been started.
constexpr size_t UNSTARTED_MAX = 1024;

App::AppView MakeView(const App::GeneralAppInfo& app) {
    App::AppView view = App::MakeView(app);
    view.isRestartStarted = app.restartStarted_;
    view.isKillSent = app.killSent_;
    view.isKilled = app.forceTerm_ || app.GetState() == RESTARTING;
    return view;
}

const std::string& NameOf(const App::AppView& view) {
    return view.facts->name;
}

bool IsBefore(const App::AppView& one, const App::AppView& other) {
    return NameOf(one) < NameOf(other);
}

// The facts of an application that has no owner yet. Its keys for services have no effect.
std::shared_ptr<const App::AppFacts> FactsOf(const ApplicationManifest& manifest) {
    auto facts = std::make_shared<App::AppFacts>(manifest);
    facts->isReporting = false;
    facts->depends = {};
    return facts;
}

// The applications of the configuration that are not among the views, by name.
std::vector<App::AppView> FindUnstarted(const StartupConfig& config,
                                        const std::vector<App::AppView>& views) {
    std::vector<App::AppView> unstarted;
    auto view = views.begin();
    std::string last;
    for (size_t copied = COPIES_AT_A_TIME; copied == COPIES_AT_A_TIME;) {
        const std::vector<ApplicationManifest> apps = config.GetAfter(last, COPIES_AT_A_TIME);
        for (const ApplicationManifest& manifest : apps) {
            last = manifest.GetAppName();
            view = std::find_if(view, views.end(), [&last](const App::AppView& other) {
                return NameOf(other) >= last;
            });
            const bool isKnown = view != views.end() && NameOf(*view) == last;
            if (!isKnown && unstarted.size() < UNSTARTED_MAX) {
                unstarted.push_back(App::MakeView(FactsOf(manifest)));
            }
        }
        copied = unstarted.size() < UNSTARTED_MAX ? apps.size() : 0;
    }
    return unstarted;
}

// Adds them to the views, which are and stay sorted by name.
void AddUnstarted(const StartupConfig& config, std::vector<App::AppView>& views) {
    std::vector<App::AppView> unstarted = FindUnstarted(config, views);
    const auto middle = static_cast<std::ptrdiff_t>(views.size());
    views.insert(views.end(), std::move_iterator(unstarted.begin()),
                 std::move_iterator(unstarted.end()));
    std::inplace_merge(views.begin(), views.begin() + middle, views.end(), IsBefore);
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
    AddUnstarted(config_, views);
    return views;
}

// Walks the records and the histories together, both by name: the name of a record is usually that
// of a history, too.
size_t GeneralApps::CopyViews(std::string& last, std::vector<App::AppView>& views) {
    const LockGuard lock(mutex_);
    if (!histories_) {
        return 0;
    }
    const App::HistoryTable::Histories& histories = histories_->GetAll();
    auto record = generalAppMap_.upper_bound(last);
    auto history = histories.upper_bound(last);
    size_t copied = 0;
    for (; copied < COPIES_AT_A_TIME; ++copied) {
        const bool hasRecord = record != generalAppMap_.end();
        const bool hasHistory = history != histories.end();
        if (!hasRecord && !hasHistory) {
            break;
        }
        const bool isRecord = hasRecord && (!hasHistory || record->first <= history->first);
        last = isRecord ? record->first : history->first;
        if (!isRecord) {
            views.push_back(App::MakeView(*history->second));
        } else if (record->second->history_ != nullptr) {
            views.push_back(MakeView(*record->second));
        }
        if (hasHistory && history->first == last) {
            ++history;
        }
        if (isRecord) {
            ++record;
        }
    }
    return copied;
}

}  // namespace ProcMgr
