// The directory of a socket, and the places for its clients.
#include "wire/group_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "tests/support/files.h"

namespace Wire {
namespace {

using ProcMgr::Tests::TempDirectory;

TEST(GroupSocket, ADirectoryThatExistsIsUsedAsItIsOrNotAtAll) {
    const TempDirectory top;
    // The mode, and whether the socket can be made.
    const std::pair<mode_t, bool> cases[] = {
        {0700, true}, {01777, true}, {0777, false}, {0720, false}};
    for (const auto& [mode, isGood] : cases) {
        const std::string directory = top / "d" + std::to_string(mode);
        ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
        ASSERT_EQ(chmod(directory.c_str(), mode), 0);
        GroupSocket socket;
        EXPECT_EQ(socket.Open(directory + "/s", std::nullopt) == nullptr, isGood) << mode;
        struct stat status {};
        ASSERT_EQ(stat(directory.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & ALLPERMS, mode);
        EXPECT_EQ(std::filesystem::exists(directory + "/s"), isGood);
    }
    const mode_t mask = umask(077);
    EXPECT_EQ(GroupSocket().Open(top / "new/s", std::nullopt), nullptr);
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat((top / "new").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & ALLPERMS, 0755U);
    EXPECT_NE(GroupSocket().Open("relative/s", std::nullopt), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST(GroupSocket, NeitherAUserNorTheGroupKeepsRootOut) {
    std::vector<uid_t> present;
    while (HasPlace(1001, present)) {
        present.push_back(1001);
    }
    EXPECT_EQ(present.size(), 8U);
    while (HasPlace(1002, present)) {
        present.push_back(1002);
    }
    EXPECT_EQ(present.size(), 12U);
    EXPECT_FALSE(HasPlace(1003, present));
    while (HasPlace(0, present)) {
        present.push_back(0);
    }
    EXPECT_EQ(present.size(), 16U);
}

}  // namespace
}  // namespace Wire
