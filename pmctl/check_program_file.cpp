// The file of a program: whether it is there, and whether its user may execute it.
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <set>
#include <system_error>
#include <vector>

#include "app/integrity.h"
#include "app/launch_checks.h"
#include "pmctl/check_program.h"
#include "pmctl/near_word.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t FILES_MAX_COMPARED = 1000;  // names in the directory of an absent program
constexpr size_t HEAD_SIZE = 256;            // bytes of a program that are read

std::string ErrorText(int code) {
    return std::generic_category().message(code);
}

// "root:root 0755", in numbers.
std::string Rights(const struct stat& status) {
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "owner %u, group %u, mode %04o",
                  static_cast<unsigned>(status.st_uid), static_cast<unsigned>(status.st_gid),
                  static_cast<unsigned>(status.st_mode & 07777));
    return text.data();
}

// The check of the kernel: the bits of the owner, of the group or of all others count.
bool MayExecute(const Identity& user, const struct stat& status) {
    if (user.uid == 0) {
        return S_ISDIR(status.st_mode) || (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
    }
    if (user.uid == status.st_uid) {
        return (status.st_mode & S_IXUSR) != 0;
    }
    const std::vector<gid_t>& groups = user.groups.groups;
    const bool isMember = user.gid == status.st_gid ||
                          std::find(groups.begin(), groups.end(), status.st_gid) != groups.end();
    return (status.st_mode & (isMember ? S_IXGRP : S_IXOTH)) != 0;
}

// The program of that directory with the nearest name.
std::string NearestProgram(const CheckedEntry& entry, const std::string& path) {
    if (!entry.context.MayLookForHint()) {
        return {};
    }
    const std::filesystem::path wanted(path);
    const Image::Walk folder = entry.context.image.Follow(wanted.parent_path());
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator file(folder.hostPath, error);
    for (; !error && file != std::filesystem::directory_iterator() &&
           names.size() < FILES_MAX_COMPARED;
         file.increment(error)) {
        names.push_back(file->path().filename());
    }
    std::sort(names.begin(), names.end());
    const std::vector<std::string_view> known(names.begin(), names.end());
    return DidYouMean(wanted.filename().string(), known);
}

void ReportFailedWalk(const CheckedEntry& entry, const std::string& path, const Image::Walk& walk) {
    if (walk.error == EACCES || walk.error == EPERM) {
        entry.Note("bin",
                   path + " cannot be examined: " + walk.failed + ": " + ErrorText(walk.error),
                   "run as root");
    } else if (walk.error != ENOENT) {
        entry.Error("bin",
                    path + " cannot be resolved: " + walk.failed + ": " + ErrorText(walk.error));
    } else if (std::filesystem::path(walk.failed).filename() ==
               std::filesystem::path(path).filename()) {
        // The last part is missing; a link on the way may have led to another directory.
        entry.Error("bin", "there is no program " + path, NearestProgram(entry, path));
    } else {
        entry.Error("bin", "there is no program " + path, "there is no " + walk.failed);
    }
}

// What keeps the daemon from starting the program.
void ReportExecuteRight(const CheckedEntry& entry, const std::string& path,
                        const struct stat& status, App::ExecuteRight right) {
    const std::string user = "user " + std::to_string(entry.manifest.GetUid());
    const std::string file = path + " (" + Rights(status) + ')';
    switch (right) {
        case App::ExecuteRight::GRANTED:
            return;
        case App::ExecuteRight::NO_BIT:
            entry.Error("bin", file + " is not executable", "chmod a+x");
            return;
        case App::ExecuteRight::NO_OWNER_BIT:
            entry.Error("bin", user + " may not execute " + file, "chmod u+x");
            return;
        case App::ExecuteRight::NO_MEMBER:
            entry.Error("bin", user + " may not execute " + file,
                        "the user has to be in the group of the file; that everybody may execute "
                        "it is not enough");
            return;
        case App::ExecuteRight::NO_GROUP_BIT:
            entry.Error("bin", user + " may not execute " + file, "chmod g+x");
            return;
    }
}

// The first bytes of the program; empty when it cannot be read, which is no error.
std::string HeadOf(const std::string& hostPath) {
    const Wire::UniqueFd fd(open(hostPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    std::array<char, HEAD_SIZE> head{};
    const ssize_t got = fd.IsValid() ? read(fd.Get(), head.data(), head.size()) : 0;
    return {head.data(), static_cast<size_t>(std::max<ssize_t>(got, 0))};
}

// The interpreter of a script, and programs that the kernel cannot execute.
void CheckFormat(const CheckedEntry& entry, const std::string& path, const Image::Walk& walk) {
    const std::string head = HeadOf(walk.hostPath);
    if (walk.file.status.st_size == 0) {
        entry.Error("bin", path + " is empty");
    } else if (head.starts_with("#!")) {
        const size_t begin = std::min(head.find_first_not_of(" \t", 2), head.size());
        const size_t end = std::min(head.find_first_of(" \t\n", begin), head.size());
        const std::string interpreter = head.substr(begin, end - begin);
        const int error = entry.context.image.Follow(interpreter).error;
        if (error == ENOENT || error == ENOTDIR) {
            entry.Error("bin", "the interpreter '" + interpreter + "' of " + path + " is missing");
        }
    } else if (!head.empty() && !head.starts_with("\x7f"
                                                  "ELF")) {
        entry.Warn("bin", path + " is neither an ELF program nor a script that begins with #!");
    }
}

void CheckFolders(const CheckedEntry& entry, const std::string& path, const Image::Walk& walk,
                  const Identity& identity) {
    std::set<std::string> seen;
    for (const Image::Step& folder : walk.folders) {
        if (seen.insert(folder.path).second && !MayExecute(identity, folder.status)) {
            entry.Error("bin", "user " + std::to_string(identity.uid) + " may not enter " +
                                   folder.path + " (" + Rights(folder.status) + ") on the way to " +
                                   path);
        }
    }
}

bool IsOnNoexec(const CheckedEntry& entry, const Image::Walk& walk) {
    struct statvfs system {};
    return entry.context.image.IsHere() && statvfs(walk.hostPath.c_str(), &system) == 0 &&
           (system.f_flag & ST_NOEXEC) != 0;
}

// The user's right to execute the program that has been found.
void CheckRight(const CheckedEntry& entry, const std::string& path, const Image::Walk& walk,
                const Identity& identity) {
    const struct stat& status = walk.file.status;
    const App::ExecuteRight right = App::GetExecuteRight(status, identity.uid, identity.groups);
    ReportExecuteRight(entry, path, status, right);
    if (right == App::ExecuteRight::GRANTED && !MayExecute(identity, status)) {
        entry.Error("bin", "the kernel does not let user " + std::to_string(identity.uid) +
                               " execute " + path + " (" + Rights(status) + ')');
    }
    CheckFolders(entry, path, walk, identity);
}

// The digest of the hash file, for a program that is protected.
void CheckDigest(const CheckedEntry& entry, const std::string& path, const Image::Walk& walk) {
    ProgramDigests& digests = entry.context.digests;
    if (!digests.GetError().empty() && !entry.context.hasDigestNote) {
        entry.Note("bin", std::string("digests are not checked: ") + App::HASH_FILE + ": " +
                              digests.GetError());
        entry.context.hasDigestNote = true;
    }
    switch (digests.Check(path, walk)) {
        case ProgramDigests::Verdict::PASSED:
            return;
        case ProgramDigests::Verdict::WRONG:
            entry.Error("bin", path + " does not have the digest of " + App::HASH_FILE +
                                   ": the daemon refuses the start");
            return;
        case ProgramDigests::Verdict::UNKNOWN:
            entry.Note("bin", path + " cannot be read, so its digest is not checked",
                       "run as root");
            return;
    }
}

}  // namespace

void CheckProgramFile(const CheckedEntry& entry, const std::string& path,
                      const Identity* identity) {
    const Image::Walk walk = entry.context.image.Follow(path);
    if (walk.error != 0) {
        ReportFailedWalk(entry, path, walk);
        return;
    }
    if (!S_ISREG(walk.file.status.st_mode)) {
        entry.Error("bin", path + (S_ISDIR(walk.file.status.st_mode) ? " is a directory"
                                                                     : " is not a regular file"));
        return;
    }
    if (identity != nullptr) {
        CheckRight(entry, path, walk, *identity);
    }
    CheckDigest(entry, path, walk);
    if (IsOnNoexec(entry, walk)) {
        entry.Error("bin", path + " lies on a file system that is mounted with noexec");
    }
    CheckFormat(entry, path, walk);
}

}  // namespace ProcMgr::Pmctl
