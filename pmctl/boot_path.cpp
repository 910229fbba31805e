#include "pmctl/boot_path.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace ProcMgr::Pmctl {
namespace {

// A dependency explains a release that followed its fulfilment within this time.
constexpr int64_t AT_ONCE_NS = 5'000'000;

using ByName = std::map<std::string_view, size_t>;

// When the daemon could go on with the entry; its start where it does not say so.
int64_t ReleaseOf(const BootEntry& entry) {
    return entry.released >= 0 ? entry.released : entry.started;
}

// When the entry fulfilled those that depend on it: one that reports its state with its report, any
// other with its start. -1: it has not.
int64_t FulfilmentOf(const BootEntry& entry) {
    return entry.service->isReporting ? entry.ready : entry.started;
}

// The dependency that was fulfilled last before the entry was started; the number of entries
// without one. Only entries before it: the path has an end.
size_t LastDependency(const BootModel& model, const ByName& names, size_t index) {
    const BootEntry& entry = model.entries[index];
    size_t last = model.entries.size();
    for (const std::string& name : entry.service->depends) {
        const auto found = names.find(name);
        if (found == names.end() || found->second >= index) {
            continue;
        }
        const int64_t fulfilled = FulfilmentOf(model.entries[found->second]);
        const bool isBefore = fulfilled >= 0 && fulfilled <= entry.started;
        if (isBefore &&
            (last == model.entries.size() || fulfilled > FulfilmentOf(model.entries[last]))) {
            last = found->second;
        }
    }
    return last;
}

// The last moment of a predecessor that can have released what started at `release`.
int64_t LastMomentBefore(const BootEntry& predecessor, int64_t release) {
    const bool isReadyBefore = predecessor.ready >= 0 && predecessor.ready <= release;
    return isReadyBefore ? predecessor.ready : predecessor.started;
}

void FindRelease(BootModel& model, const ByName& names, size_t index) {
    BootEntry& entry = model.entries[index];
    if (entry.started < 0) {
        return;
    }
    const size_t dependency = LastDependency(model, names, index);
    const int64_t release = ReleaseOf(entry);
    if (dependency != model.entries.size()) {
        const int64_t fulfilled = FulfilmentOf(model.entries[dependency]);
        entry.isDependency = release - fulfilled <= AT_ONCE_NS || dependency + 1 == index ||
                             fulfilled >= LastMomentBefore(model.entries[index - 1], release);
    }
    if (entry.isDependency) {
        entry.releasedBy = model.entries[dependency].service->name;
    } else if (index > 0) {
        entry.releasedBy = model.entries[index - 1].service->name;
    }
}

}  // namespace

void MarkCriticalPath(BootModel& model) {
    ByName names;
    for (size_t i = 0; i < model.entries.size(); ++i) {
        names.emplace(model.entries[i].service->name, i);
    }
    for (size_t i = 0; i < model.entries.size(); ++i) {
        FindRelease(model, names, i);
    }
    const auto last = std::max_element(
        model.entries.begin(), model.entries.end(),
        [](const BootEntry& left, const BootEntry& right) { return left.ready < right.ready; });
    if (last == model.entries.end() || last->ready < 0) {
        return;
    }
    for (BootEntry* entry = &*last; entry != nullptr;) {
        entry->isCritical = true;
        model.critical.insert(model.critical.begin(), entry->service->name);
        const auto before = names.find(entry->releasedBy);
        const bool hasBefore = !entry->releasedBy.empty() && before != names.end();
        entry = hasBefore ? &model.entries[before->second] : nullptr;
    }
}

}  // namespace ProcMgr::Pmctl
