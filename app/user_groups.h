// The groups of a user, from the user database, which may be slow: no lock is held while it is
// asked. Any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "main/common/clock.h"
#include "main/common/mutex.h"

namespace ProcMgr::App {

struct UserGroups {
    enum class Result { FOUND, NO_USER, TOO_MANY, NOT_WIPED };
    Result result = Result::NO_USER;
    int error = 0;              // errno of a failure
    std::vector<gid_t> groups;  // supplementary groups, the user's own group among them
};

// A user may have at most so many groups.
inline constexpr int USER_GROUPS_MAX = 128;

UserGroups LookUpUserGroups(uint32_t uid);

// Whether `gid` is among the groups that were found. A user with less than 128 groups counts as a
// member of group 0.
bool IsGroupMember(const UserGroups& user, gid_t gid);

// Look-ups that were made a moment ago: at boot many services of few users start in one burst. An
// entry is used for a minute at most, and only while the files of the user database are the same.
class UserGroupsCache {
public:
    // Asks the database when the cache does not know. Not with a lock held.
    UserGroups LookUp(uint32_t uid);

    // What the cache knows; nothing when the database would have to be asked.
    std::optional<UserGroups> Find(uint32_t uid);

private:
    // What the files of the user database were like.
    static std::string ReadStamp();

    Mutex mutex_;
    // All guarded by mutex_.
    std::map<uint32_t, UserGroups> found_;
    std::string stamp_;
    SteadyTime filled_{};
};

}  // namespace ProcMgr::App
