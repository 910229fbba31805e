#include "pmctl/board_users.h"

#include <grp.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "main/common/numbers.h"
#include "platform/host/primary_group.h"
#include "platform/host/yaml_file.h"
#include "wire/group_socket.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t TEXTS_SIZE = 65536;
constexpr size_t NAMES_MAX = 10000;

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(separator, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

// The text of a file of the image; nothing when it cannot be read.
std::optional<std::string> ReadText(const Image& image, const std::string& path) {
    const Image::Walk walk = image.Follow(path);
    if (walk.error != 0) {
        return std::nullopt;
    }
    PlatformHost::YamlFile file =
        PlatformHost::ReadYamlFile(walk.hostPath, PlatformHost::FileTrust::ANY);
    return file.error.empty() ? std::optional(std::move(file.text)) : std::nullopt;
}

}  // namespace

BoardUsers::BoardUsers(const Image& image) : isHere_(image.IsHere()) {
    if (isHere_) {
        return;
    }
    const auto users = ReadText(image, "/etc/passwd");
    const auto groups = ReadText(image, "/etc/group");
    isKnown_ = users.has_value() && groups.has_value();
    if (isKnown_) {
        ReadUsers(*users);
        ReadGroups(*groups);
    }
}

// NAME:PASSWORD:UID:GID:...
void BoardUsers::ReadUsers(const std::string& text) {
    for (const std::string_view line : Split(text, '\n')) {
        const std::vector<std::string_view> fields = Split(line, ':');
        const auto uid = fields.size() > 3 ? ParseNumber<uint32_t>(fields[2]) : std::nullopt;
        const auto gid = fields.size() > 3 ? ParseNumber<uint32_t>(fields[3]) : std::nullopt;
        if (uid && gid && users_.try_emplace(*uid, User{std::string(fields[0]), *gid}).second) {
            App::UserGroups& groups = groups_[*uid];
            groups.result = App::UserGroups::Result::FOUND;
            groups.groups.push_back(*gid);
        }
    }
}

// NAME:PASSWORD:GID:MEMBER,MEMBER
void BoardUsers::ReadGroups(const std::string& text) {
    std::map<std::string_view, uint32_t> uids;
    for (const auto& [uid, user] : users_) {
        uids.emplace(user.name, uid);
    }
    for (const std::string_view line : Split(text, '\n')) {
        const std::vector<std::string_view> fields = Split(line, ':');
        const auto gid = fields.size() > 3 ? ParseNumber<uint32_t>(fields[2]) : std::nullopt;
        if (!gid) {
            continue;
        }
        groupIds_.insert(*gid);
        groupNames_.emplace(fields[0]);
        for (const std::string_view member : Split(fields[3], ',')) {
            const auto found = uids.find(member);
            if (found != uids.end() && users_.at(found->second).group != *gid) {
                groups_[found->second].groups.push_back(*gid);
            }
        }
    }
}

const App::UserGroups& BoardUsers::GroupsOf(uint32_t uid) {
    const auto found = groups_.find(uid);
    if (found != groups_.end()) {
        return found->second;
    }
    return groups_[uid] = isHere_ ? App::LookUpUserGroups(uid) : App::UserGroups();
}

uint32_t BoardUsers::PrimaryGroupOf(uint32_t uid) {
    if (isHere_) {
        return PlatformHost::PrimaryGroup(uid).value_or(0);
    }
    const auto found = users_.find(uid);
    return found == users_.end() ? 0 : found->second.group;
}

bool BoardUsers::HasGroup(uint32_t gid) {
    if (!isHere_) {
        return groupIds_.contains(gid);
    }
    std::vector<char> texts(TEXTS_SIZE);
    group record{};
    group* found = nullptr;
    // A record that is too large for the buffer is one, too.
    return getgrgid_r(gid, &record, texts.data(), texts.size(), &found) != 0 || found != nullptr;
}

bool BoardUsers::HasGroupNamed(const std::string& name) const {
    return isHere_ ? Wire::FindGroup(name).has_value() : groupNames_.contains(name);
}

std::vector<std::string> BoardUsers::GroupNames() const {
    std::vector<std::string> names(groupNames_.begin(), groupNames_.end());
    if (isHere_) {
        setgrent();
        for (const group* entry = nullptr;
             names.size() < NAMES_MAX && (entry = getgrent()) != nullptr;) {
            names.emplace_back(entry->gr_name);
        }
        endgrent();
    }
    return names;
}

}  // namespace ProcMgr::Pmctl
