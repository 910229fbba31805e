// The groups of a user, from the user database. The launch checks and the launch plan use them. The
// database may be slow, so no look-up is made with a lock held. Callable from any thread.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "main/common/recent.h"

namespace ProcMgr::App {

struct UserGroups {
    enum class Result { FOUND, NO_USER, TOO_MANY, NOT_WIPED };
    Result result = Result::NO_USER;
    int error = 0;              // errno of a failure
    std::vector<gid_t> groups;  // the supplementary groups, with the user's own group
};

// The highest number of groups that a user may have.
inline constexpr int USER_GROUPS_MAX = 128;

// Asks the user database. Not with a lock held.
UserGroups LookUpUserGroups(uint32_t uid);

// Whether the user is a member of group `gid`. A user with fewer than 128 groups counts as a member
// of group 0; a user whose groups could not be found is a member of none.
bool IsGroupMember(const UserGroups& user, gid_t gid);

// Keeps the groups of users that were looked up before, because at boot many services of few users
// start at once. An entry is used for a minute at most, and only as long as the files of the user
// database do not change; a change is noticed after BATCH_TIME.
class UserGroupsCache {
public:
    // The groups from the cache, else from the database. Not with a lock held.
    UserGroups LookUp(uint32_t uid) PROCMGR_EXCLUDES(mutex_);

    // The groups from the cache; nothing when the database would have to be asked.
    std::optional<UserGroups> Find(uint32_t uid) PROCMGR_EXCLUDES(mutex_);

private:
    // Inode, size and modification time (seconds, nanoseconds) of each file of the user database;
    // zeros for an absent one. Different when a file has changed.
    using Stamp = std::array<std::array<int64_t, 4>, 3>;

    static Stamp ReadStamp();
    // Empties the cache when the database has changed or the entries are too old.
    void Refresh() PROCMGR_EXCLUDES(mutex_);

    Recent<Stamp> recentStamp_;
    Mutex mutex_;
    std::map<uint32_t, UserGroups> found_ PROCMGR_GUARDED_BY(mutex_);  // by uid
    // The stamp and the time at which the cache was last emptied.
    Stamp stamp_ PROCMGR_GUARDED_BY(mutex_){};
    SteadyTime emptied_ PROCMGR_GUARDED_BY(mutex_){};
};

}  // namespace ProcMgr::App
