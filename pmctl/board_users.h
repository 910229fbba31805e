// The users and groups of the board: from the user database of this machine, or from etc/passwd and
// etc/group of an image.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app/user_groups.h"
#include "pmctl/image.h"

namespace ProcMgr::Pmctl {

class BoardUsers {
public:
    explicit BoardUsers(const Image& image);

    // False when the image has no user database that can be read: the functions below find nothing.
    bool IsKnown() const { return isKnown_; }

    // The groups of the user, as a process of the user gets them.
    const App::UserGroups& GroupsOf(uint32_t uid);
    // The primary group; 0 for a user that nobody knows, as the daemon takes it.
    uint32_t PrimaryGroupOf(uint32_t uid);
    bool HasGroup(uint32_t gid);
    bool HasGroupNamed(const std::string& name) const;
    // The names of the groups, of this machine the first 10000.
    std::vector<std::string> GroupNames() const;

private:
    struct User {
        std::string name;
        gid_t group = 0;
    };

    void ReadUsers(const std::string& text);
    void ReadGroups(const std::string& text);

    const bool isHere_;
    bool isKnown_ = true;
    std::map<uint32_t, App::UserGroups> groups_;  // those that were asked for; of an image, all
    std::map<uint32_t, User> users_;              // of an image
    std::set<uint32_t> groupIds_;                 // of an image
    std::set<std::string> groupNames_;            // of an image
};

}  // namespace ProcMgr::Pmctl
