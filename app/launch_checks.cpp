#include "app/launch_checks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "main/common/log.h"
#include "main/common/mutex.h"
#include "main/common/paths.h"

namespace ProcMgr::App {
namespace {

constexpr std::array ILLEGAL_STRINGS = {"|",  ";",  ">", "<", ">>", "`",
                                        "||", "&&", "&", "(", ")",  "$"};
constexpr mode_t ANY_EXECUTE = S_IXUSR | S_IXGRP | S_IXOTH;

bool MayRootExecute(const char* app, const char* path, const struct stat& file) {
    if (GetExecuteRight(file, 0, {}) == ExecuteRight::GRANTED) {
        return true;
    }
    ProcMgrLog(LOG_ERR,
               "PROCMGR : Start App=%s failed, cfg uid is root, but binPath=%s uid=%u not have x "
               "permission !!",
               app, path, file.st_uid);
    return false;
}

bool MayOwnerExecute(const char* app, const char* path, uint32_t uid, const struct stat& file) {
    if (GetExecuteRight(file, uid, {}) == ExecuteRight::GRANTED) {
        return true;
    }
    ProcMgrLog(LOG_ERR,
               "PROCMGR : Start App=%s failed, cfg uid=%u, but binPath=%s uid=%u not have x "
               "permission !!",
               app, uid, path, uid);
    return false;
}

// For a user who is neither root nor the owner of the program.
StartRefusal FindMemberRefusal(const char* app, const char* path, uint32_t uid,
                               const struct stat& file, UserGroupsCache& users) {
    const UserGroups user = users.LookUp(uid);
    const bool isUnknown = user.result == UserGroups::Result::NO_USER;
    if (isUnknown) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : Start App=%s failed, uid=%u is not in the user database, error=%d",
                   app, uid, user.error);
    }
    const ExecuteRight right = GetExecuteRight(file, uid, user);
    if (right == ExecuteRight::GRANTED) {
        return StartRefusal::NONE;
    }
    if (right == ExecuteRight::NO_MEMBER) {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : Start App=%s failed, cfg uid=%u, but binPath=%s uid=%u, gid=%u not "
                   "have x permission !!",
                   app, uid, path, file.st_uid, file.st_gid);
    } else {
        ProcMgrLog(LOG_ERR,
                   "PROCMGR : Start App=%s failed, cfg uid=%u, but binPath=%s gid=%u not have x "
                   "permission !!",
                   app, uid, path, file.st_gid);
    }
    return isUnknown ? StartRefusal::NO_USER : StartRefusal::NOT_EXECUTABLE;
}

// Looks at the program that the path leads to. One call is enough when it succeeds and the path is
// not too long for StandardizationPath(): the kernel finds the same file, and also one behind a
// link below /proc/PID that no name leads to. The steps one by one find which of them fails.
bool StatProgram(const char* app, const std::string& execPath, struct stat& file) {
    const char* path = execPath.c_str();
    if (execPath.size() < PATH_MAX && stat(path, &file) == 0) {
        return true;
    }
    if (access(path, F_OK) != 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Start App=%s failed, binPath=%s is not existed !!!", app,
                   path);
        return false;
    }
    std::string resolved;
    if (!StandardizationPath(execPath, resolved)) {
        ProcMgrLog(LOG_ERR, "ProcMgr: StandardizationPath failed, path: %s", path);
        return false;
    }
    if (stat(resolved.c_str(), &file) != 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR : Start App=%s failed, stat binPath=%s failed, error=%d", app,
                   path, errno);
        return false;
    }
    return true;
}

}  // namespace

bool IsIllegalArgument(const std::string& argument) {
    return std::any_of(ILLEGAL_STRINGS.begin(), ILLEGAL_STRINGS.end(), [&](const char* illegal) {
        return argument.find(illegal) != std::string::npos;
    });
}

ExecuteRight GetExecuteRight(const struct stat& program, uint32_t uid, const UserGroups& groups) {
    if (uid == 0) {
        const bool hasBit = (program.st_mode & ANY_EXECUTE) != 0;
        return hasBit ? ExecuteRight::GRANTED : ExecuteRight::NO_BIT;
    }
    if (uid == program.st_uid) {
        const bool hasBit = (program.st_mode & S_IXUSR) != 0;
        return hasBit ? ExecuteRight::GRANTED : ExecuteRight::NO_OWNER_BIT;
    }
    if (!IsGroupMember(groups, program.st_gid)) {
        return ExecuteRight::NO_MEMBER;
    }
    const bool hasBit = (program.st_mode & S_IXGRP) != 0;
    return hasBit ? ExecuteRight::GRANTED : ExecuteRight::NO_GROUP_BIT;
}

StartRefusal CheckChildProParas(const std::string& appName, const std::string& execPath,
                                uint32_t uid, const std::vector<std::string>& arguments,
                                UserGroupsCache& users) {
    MayWait("the program's file system");
    const char* app = appName.c_str();
    const char* path = execPath.c_str();
    if (std::any_of(arguments.begin(), arguments.end(), IsIllegalArgument)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : CheckChildProParas App=%s arguments include illegal str",
                   app);
        return StartRefusal::ARGUMENTS;
    }
    struct stat file {};
    if (!StatProgram(app, execPath, file)) {
        return StartRefusal::MISSING;
    }
    if (uid != 0 && uid != file.st_uid) {
        return FindMemberRefusal(app, path, uid, file, users);
    }
    const bool mayExecute =
        uid == 0 ? MayRootExecute(app, path, file) : MayOwnerExecute(app, path, uid, file);
    return mayExecute ? StartRefusal::NONE : StartRefusal::NOT_EXECUTABLE;
}

}  // namespace ProcMgr::App
