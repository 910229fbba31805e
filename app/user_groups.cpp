#include "app/user_groups.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <tuple>
#include <utility>

#include "platform/securec.h"

namespace ProcMgr::App {
namespace {

constexpr std::chrono::seconds CACHE_LIFE{60};
// Bytes for the texts of one record of the user database.
constexpr size_t TEXTS_SIZE = 16384;
constexpr const char* DATABASE_FILES[] = {"/etc/passwd", "/etc/group", "/etc/nsswitch.conf"};

}  // namespace

UserGroups LookUpUserGroups(uint32_t uid) {
    MayWait("the user database");
    UserGroups found;
    std::vector<char> texts(TEXTS_SIZE);
    passwd record{};
    passwd* user = nullptr;
    found.error = getpwuid_r(uid, &record, texts.data(), texts.size(), &user);
    if (user == nullptr) {
        return found;
    }
    int count = USER_GROUPS_MAX;
    found.groups.resize(USER_GROUPS_MAX);
    const int listed = getgrouplist(user->pw_name, user->pw_gid, found.groups.data(), &count);
    // The record is overwritten, because every child inherits the memory, and the record may
    // contain the password hash of the user.
    if (memset_s(texts.data(), texts.size(), 0, texts.size()) != 0 ||
        memset_s(user, sizeof(*user), 0, sizeof(*user)) != 0) {
        found.result = UserGroups::Result::NOT_WIPED;
        found.error = errno;
        return found;
    }
    if (listed < 0) {
        found.result = UserGroups::Result::TOO_MANY;
        return found;
    }
    found.groups.resize(static_cast<size_t>(count));
    found.result = UserGroups::Result::FOUND;
    return found;
}

bool IsGroupMember(const UserGroups& user, gid_t gid) {
    if (user.result != UserGroups::Result::FOUND) {
        return false;
    }
    if (gid == 0 && user.groups.size() < USER_GROUPS_MAX) {
        return true;
    }
    return std::find(user.groups.begin(), user.groups.end(), gid) != user.groups.end();
}

UserGroupsCache::Stamp UserGroupsCache::ReadStamp() {
    Stamp stamp{};
    static_assert(std::tuple_size_v<Stamp> == std::size(DATABASE_FILES));
    for (size_t i = 0; i < stamp.size(); ++i) {
        struct stat file {};
        if (stat(DATABASE_FILES[i], &file) == 0) {
            stamp[i] = {static_cast<int64_t>(file.st_ino), file.st_size, file.st_mtim.tv_sec,
                        file.st_mtim.tv_nsec};
        }
    }
    return stamp;
}

void UserGroupsCache::Refresh() {
    const Stamp stamp = recentStamp_.Get(ReadStamp);
    const SteadyTime now = std::chrono::steady_clock::now();
    const LockGuard lock(mutex_);
    if (stamp != stamp_ || now - emptied_ > CACHE_LIFE) {
        found_.clear();
        stamp_ = stamp;
        emptied_ = now;
    }
}

std::optional<UserGroups> UserGroupsCache::Find(uint32_t uid) {
    Refresh();
    const LockGuard lock(mutex_);
    const auto entry = found_.find(uid);
    return entry == found_.end() ? std::nullopt : std::optional(entry->second);
}

UserGroups UserGroupsCache::LookUp(uint32_t uid) {
    if (auto known = Find(uid)) {
        return *known;
    }
    const Stamp stamp = ReadStamp();
    UserGroups user = LookUpUserGroups(uid);
    const LockGuard lock(mutex_);
    // The stamp is compared again: a result that was read before the database changed is not
    // stored.
    if (user.result == UserGroups::Result::FOUND && stamp == stamp_) {
        found_.insert_or_assign(uid, user);
    }
    return user;
}

}  // namespace ProcMgr::App
