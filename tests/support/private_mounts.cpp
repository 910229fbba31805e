#include "tests/support/private_mounts.h"

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tests/support/files.h"
#include "wire/unique_fd.h"

namespace {

namespace fs = std::filesystem;

// All mount points, oldest first. Not guarded: tests mount from one thread.
std::vector<fs::path> g_mounts;

// Directories below a mount point are private; a bound file contains none.
bool IsPrivate(const fs::path& path) {
    return std::any_of(g_mounts.begin(), g_mounts.end(), [&](const fs::path& place) {
        const fs::path relative = path.lexically_relative(place);
        return !relative.empty() && *relative.begin() != "..";
    });
}

// A new directory in memory.
std::string MakeStaging() {
    char path[] = "/tmp/private-mounts-XXXXXX";
    Require(mkdtemp(path) != nullptr, "mkdtemp");
    Require(mount("tmpfs", path, "tmpfs", 0, "mode=0755") == 0, "mount a tmpfs");
    return path;
}

// The mounts of its contents stay.
void RemoveStaging(const std::string& path) {
    umount2(path.c_str(), MNT_DETACH);
    rmdir(path.c_str());
}

// Mounts a private, writable view of a directory and its contents over the directory, where the
// kernel allows it. The view keeps changes in a directory in memory. It does not show what has been
// mounted below the directory, so that is mounted again.
void Overlay(const fs::path& directory) {
    std::vector<std::pair<std::string, Wire::UniqueFd>> hidden;
    for (const fs::path& place : g_mounts) {
        if (place.string().starts_with(directory.string() + '/')) {
            hidden.emplace_back(place, open(place.c_str(), O_PATH | O_CLOEXEC));
        }
    }
    const std::string staging = MakeStaging();
    const std::string upper = staging + "/upper";
    const std::string work = staging + "/work";
    fs::create_directory(upper);
    fs::create_directory(work);
    if (!Mount("overlay", directory, "overlay",
               "lowerdir=" + directory.string() + ",upperdir=" + upper + ",workdir=" + work)) {
        hidden.clear();
    }
    RemoveStaging(staging);
    for (const auto& [path, mounted] : hidden) {
        Require(Mount("/proc/self/fd/" + std::to_string(mounted.Get()), path), "bind " + path);
    }
}

void MakeParents(const fs::path& path) {
    fs::path existing = path.parent_path();
    while (!fs::exists(existing)) {
        existing = existing.parent_path();
    }
    const bool isRoot = existing == existing.root_path();
    if (isRoot && path.parent_path() != existing) {
        // An overlay of the root would not be visible, so an empty directory is made on the disk.
        const fs::path top = existing / *std::next(path.begin());
        fs::create_directory(top);
        MountTmpfs(top);
    } else if (!isRoot && !IsPrivate(existing)) {
        Overlay(existing);
    }
    fs::create_directories(path.parent_path());
}

}  // namespace

void Require(bool isDone, const std::string& what) {
    if (!isDone) {
        throw std::runtime_error(what + ": " + strerror(errno));
    }
}

bool EnterPrivateMountNamespace() {
    static bool isInside = false;
    if (!isInside) {
        isInside = unshare(CLONE_NEWNS) == 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    return isInside;
}

bool Mount(const std::string& source, const std::string& path, const char* type,
           const std::string& options) {
    const bool isMounted = mount(source.c_str(), path.c_str(), type, type == nullptr ? MS_BIND : 0,
                                 options.c_str()) == 0;
    if (isMounted) {
        g_mounts.emplace_back(path);
    }
    return isMounted;
}

void MountTmpfs(const std::string& path) {
    if (!fs::exists(path)) {
        MakeParents(path);
        fs::create_directory(path);
    }
    Require(Mount("tmpfs", path, "tmpfs", "mode=0755"), "mount " + path);
}

void BindFile(const std::string& contents, const std::string& path) {
    // Not on the disk: nothing can be mounted over a bound file that has been removed.
    const std::string staging = MakeStaging();
    ProcMgr::Tests::WriteFile(staging + "/file", contents);
    if (!fs::exists(path)) {
        MakeParents(path);
        ProcMgr::Tests::WriteFile(path, "");
    }
    Require(Mount(staging + "/file", path), "bind " + path);
    RemoveStaging(staging);
}

void UnmountAll() {
    for (; !g_mounts.empty(); g_mounts.pop_back()) {
        umount2(g_mounts.back().c_str(), MNT_DETACH);
    }
}
