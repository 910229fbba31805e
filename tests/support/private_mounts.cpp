#include "tests/support/private_mounts.h"

#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace {

namespace fs = std::filesystem;

// Mount points of this program, which it may write to. Not guarded: tests mount from one thread.
std::vector<fs::path>& PrivatePlaces() {
    static std::vector<fs::path> places;
    return places;
}

void Require(bool isDone, const std::string& what) {
    if (!isDone) {
        throw std::runtime_error(what + ": " + strerror(errno));
    }
}

bool IsPrivate(const fs::path& path) {
    for (const fs::path& place : PrivatePlaces()) {
        const fs::path relative = path.lexically_relative(place);
        if (!relative.empty() && *relative.begin() != "..") {
            return true;
        }
    }
    return false;
}

// A new directory in memory that only this namespace sees.
fs::path MakeStaging() {
    char path[] = "/tmp/private-mounts-XXXXXX";
    Require(mkdtemp(path) != nullptr, "mkdtemp");
    Require(mount("tmpfs", path, "tmpfs", 0, "mode=0755") == 0, "mount a tmpfs");
    return path;
}

// Mounts a private, writable view of a directory and its contents over the directory.
bool Overlay(const fs::path& directory) {
    const fs::path staging = MakeStaging();
    fs::create_directory(staging / "upper");
    fs::create_directory(staging / "work");
    const std::string options = "lowerdir=" + directory.string() +
                                ",upperdir=" + (staging / "upper").string() +
                                ",workdir=" + (staging / "work").string();
    const bool isMounted = mount("overlay", directory.c_str(), "overlay", 0, options.c_str()) == 0;
    umount2(staging.c_str(), MNT_DETACH);
    rmdir(staging.c_str());
    if (isMounted) {
        PrivatePlaces().push_back(directory);
    }
    return isMounted;
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

bool EnterPrivateMountNamespace() {
    static bool isInside = false;
    if (!isInside) {
        isInside = unshare(CLONE_NEWNS) == 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    return isInside;
}

void MountTmpfs(const std::string& path) {
    if (!fs::exists(path)) {
        MakeParents(path);
        fs::create_directory(path);
    }
    Require(mount("tmpfs", path.c_str(), "tmpfs", 0, "mode=0755") == 0, "mount " + path);
    PrivatePlaces().emplace_back(path);
}

void BindFile(const std::string& contents, const std::string& path) {
    const fs::path staging = MakeStaging();
    const fs::path file = staging / "file";
    std::ofstream(file) << contents;
    Require(chmod(file.c_str(), 0644) == 0, "chmod");
    if (!fs::exists(path)) {
        MakeParents(path);
        std::ofstream(path, std::ios::app).flush();
    }
    Require(mount(file.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0, "bind " + path);
    umount2(staging.c_str(), MNT_DETACH);
    rmdir(staging.c_str());
}
