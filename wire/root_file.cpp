#include "wire/root_file.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <utility>

namespace Wire {
namespace {

// The numbers of file systems that create the contents of a file when the file is read, some of
// them by asking another process. Those that linux/magic.h of older kernels lacks are given as
// numbers.
constexpr auto PSEUDO_FILE_SYSTEMS = std::to_array<uint32_t>({
    PROC_SUPER_MAGIC, SYSFS_MAGIC,           CGROUP_SUPER_MAGIC,   CGROUP2_SUPER_MAGIC,
    DEBUGFS_MAGIC,    TRACEFS_MAGIC,         SECURITYFS_MAGIC,     BPF_FS_MAGIC,
    PSTOREFS_MAGIC,   DEVPTS_SUPER_MAGIC,    BINFMTFS_MAGIC,       EFIVARFS_MAGIC,
    SELINUX_MAGIC,    SMACK_MAGIC,           RDTGROUP_SUPER_MAGIC, NSFS_MAGIC,
    SOCKFS_MAGIC,     USBDEVICE_SUPER_MAGIC,
    0x62656570,  // configfs
    0x19800202,  // mqueue
    0x65735546,  // FUSE
    0x65735543,  // FUSE, its control files
    0x5A3C69F0,  // apparmorfs
    0x09041934,  // anonymous inodes
    0x50495045,  // pipes
});

std::string ErrorText(const char* what, int code) {
    return std::string(what) + ": " + std::generic_category().message(code);
}

// Empty when only root can change the file or directory with this status. A sticky directory may be
// writable by others: they cannot remove or replace root's files in it.
std::string OwnerRefusal(const struct stat& status) {
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        return "belongs to uid " + std::to_string(status.st_uid) + " and not to root";
    }
    const bool isSticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    if (!isSticky && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return "is writable by group or others";
    }
    return {};
}

// Empty when only root can change each directory above the file, and thereby the file that the path
// leads to. The check begins at the top: a directory could be replaced until the directories above
// it have been checked.
std::string DirectoryRefusal(const std::string& realPath) {
    for (size_t end = 0; end != std::string::npos; end = realPath.find('/', end + 1)) {
        const std::string directory = end == 0 ? "/" : realPath.substr(0, end);
        struct stat status {};
        if (lstat(directory.c_str(), &status) != 0) {
            return ErrorText("cannot be examined", errno);
        }
        const std::string refusal = OwnerRefusal(status);
        if (!refusal.empty()) {
            return std::string("directory ").append(directory).append(" ").append(refusal);
        }
    }
    return {};
}

std::string FileRefusal(const struct stat& status) {
    if (S_ISDIR(status.st_mode)) {
        return "it is a directory";
    }
    if (!S_ISREG(status.st_mode)) {
        return "it is not a regular file";
    }
    const std::string refusal = OwnerRefusal(status);
    return refusal.empty() ? refusal : "it " + refusal;
}

std::string FileSystemRefusal(const struct statfs& status) {
    const auto magic = static_cast<uint32_t>(status.f_type);
    const bool isPseudo = std::find(PSEUDO_FILE_SYSTEMS.begin(), PSEUDO_FILE_SYSTEMS.end(),
                                    magic) != PSEUDO_FILE_SYSTEMS.end();
    return isPseudo ? "it lies on a pseudo file system" : "";
}

// The check before open(), because the opening of a device or a pseudo file may have an effect.
std::string RefusalByPath(const std::string& realPath) {
    struct stat status {};
    struct statfs fileSystem {};
    if (lstat(realPath.c_str(), &status) != 0 || statfs(realPath.c_str(), &fileSystem) != 0) {
        return ErrorText("cannot be examined", errno);
    }
    const std::string refusal = FileRefusal(status);
    return refusal.empty() ? FileSystemRefusal(fileSystem) : refusal;
}

// The same check for the file that has been opened.
std::string RefusalByDescriptor(int fd) {
    struct stat status {};
    struct statfs fileSystem {};
    if (fstat(fd, &status) != 0 || fstatfs(fd, &fileSystem) != 0) {
        return ErrorText("cannot be examined", errno);
    }
    const std::string refusal = FileRefusal(status);
    return refusal.empty() ? FileSystemRefusal(fileSystem) : refusal;
}

}  // namespace

RootFile OpenRootFile(const std::string& path) {
    RootFile file;
    const std::unique_ptr<char, void (*)(void*)> resolved(realpath(path.c_str(), nullptr), free);
    if (resolved == nullptr) {
        file.error = ErrorText("cannot be opened", errno);
        return file;
    }
    file.realPath = resolved.get();
    file.error = DirectoryRefusal(file.realPath);
    if (file.error.empty()) {
        file.error = RefusalByPath(file.realPath);
    }
    if (!file.error.empty()) {
        return file;
    }
    UniqueFd fd(
        open(file.realPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | O_NOFOLLOW));
    file.error =
        fd.IsValid() ? RefusalByDescriptor(fd.Get()) : ErrorText("cannot be opened", errno);
    if (file.error.empty()) {
        file.fd = std::move(fd);
    }
    return file;
}

}  // namespace Wire
