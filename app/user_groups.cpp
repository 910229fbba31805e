#include "app/user_groups.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "platform/securec.h"

namespace ProcMgr::App {
namespace {

constexpr std::chrono::seconds CACHE_LIFE{1};
constexpr const char* DATABASE_FILES[] = {"/etc/passwd", "/etc/group", "/etc/nsswitch.conf"};

}  // namespace

UserGroups LookUpUserGroups(uint32_t uid) {
    UserGroups found;
    errno = 0;
    passwd* user = getpwuid(uid);
    if (user == nullptr) {
        found.error = errno;
        return found;
    }
    int count = USER_GROUPS_MAX;
    found.groups.resize(USER_GROUPS_MAX);
    const int listed = getgrouplist(user->pw_name, user->pw_gid, found.groups.data(), &count);
    // The record must not be left in memory that every child inherits.
    if (memset_s(user, sizeof(*user), 0, sizeof(*user)) != 0) {
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

std::string UserGroupsCache::ReadStamp() {
    std::string stamp;
    for (const char* path : DATABASE_FILES) {
        struct stat file {};
        if (stat(path, &file) == 0) {
            for (const auto part : {static_cast<int64_t>(file.st_ino), file.st_size,
                                    file.st_mtim.tv_sec, file.st_mtim.tv_nsec}) {
                stamp += std::to_string(part) + ' ';
            }
        }
        stamp += '\n';
    }
    return stamp;
}

const UserGroups& UserGroupsCache::LookUp(uint32_t uid) {
    const SteadyTime now = std::chrono::steady_clock::now();
    std::string stamp = ReadStamp();
    if (stamp != stamp_ || now - filled_ > CACHE_LIFE) {
        found_.clear();
        stamp_ = std::move(stamp);
        filled_ = now;
    }
    const auto entry = found_.find(uid);
    if (entry != found_.end() && entry->second.result == UserGroups::Result::FOUND) {
        return entry->second;
    }
    return found_.insert_or_assign(uid, LookUpUserGroups(uid)).first->second;
}

}  // namespace ProcMgr::App
