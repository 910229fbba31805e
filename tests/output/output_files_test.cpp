// The files of output: rotation, files that must not be written, a file system that is full.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "output/file_writer.h"
#include "output/output_file.h"
#include "tests/fakes/log_capture.h"
#include "tests/support/isolated.h"
#include "tests/support/wait.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Output {
namespace {

namespace fs = std::filesystem;
using Fakes::LogCapture;
using Tests::TempDirectory;
using Tests::WriteFile;

constexpr uint64_t SIZE = 4096;

std::string Line(size_t number) {
    return "line " + std::to_string(number) + std::string(90, '.') + "\n";
}

TEST(OutputFile, IsRenamedWhenItWouldGrowAboveItsSize) {
    const TempDirectory directory;
    const std::string path = directory / "a.log";
    WriteFile(path, "old\n");
    WriteFile(path + ".1", "older\n");
    EXPECT_EQ(AppendToFile(path, SIZE, "new\n").failure, nullptr);
    EXPECT_EQ(ReadFile(path), "old\nnew\n");
    std::string lines;
    for (size_t i = 0; lines.size() < 3 * SIZE; ++i) {
        lines += Line(i);
    }
    EXPECT_EQ(AppendToFile(path, SIZE, lines).written, lines.size());
    const std::string kept = ReadFile(path + ".1") + ReadFile(path);
    EXPECT_TRUE(lines.ends_with(kept)) << "whole lines, and the last ones";
    for (const std::string& file : {path, path + ".1"}) {
        EXPECT_LE(fs::file_size(file), SIZE);
        struct stat status {};
        ASSERT_EQ(stat(file.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0640U);
    }
    EXPECT_GT(fs::file_size(path + ".1"), SIZE - Line(0).size() - 3);
}

TEST(OutputFile, MustBeARegularOneWithoutFurtherNames) {
    const TempDirectory directory;
    WriteFile(directory / "secret", "s");
    fs::create_symlink(directory / "secret", directory / "symbolic");
    fs::create_hard_link(directory / "secret", directory / "hard");
    fs::create_directory(directory / "directory");
    // Of a directory that others may write somebody else could have made the link.
    fs::create_directory(directory / "shared");
    fs::permissions(directory / "shared", fs::perms::others_write, fs::perm_options::add);
    fs::create_directory_symlink(directory / "directory", directory / "shared/link");
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    // With a reader the FIFO could be opened.
    const Wire::UniqueFd reader(open((directory / "fifo").c_str(), O_RDONLY | O_NONBLOCK));
    for (const char* name : {"symbolic", "hard", "directory", "fifo", "missing/file",
                             "shared/link/file", "shared/../file"}) {
        const AppendResult result = AppendToFile(directory / name, SIZE, "x\n");
        EXPECT_NE(result.failure, nullptr) << name;
        EXPECT_NE(result.error, 0) << name;
        EXPECT_EQ(result.written, 0U);
    }
    EXPECT_NE(AppendToFile("relative", SIZE, "x\n").failure, nullptr);
    EXPECT_EQ(ReadFile(directory / "secret"), "s");
    EXPECT_TRUE(fs::is_empty(directory / "directory"));
    EXPECT_EQ(AppendToFile(directory / "shared/file", SIZE, "x\n").failure, nullptr);
    // The older file cannot be replaced: the limit still holds.
    WriteFile(directory / "a.log", std::string(SIZE, 'x'));
    fs::create_directory(directory / "a.log.1");
    EXPECT_STREQ(AppendToFile(directory / "a.log", SIZE, "x\n").failure, "rename failed");
    EXPECT_EQ(fs::file_size(directory / "a.log"), SIZE);
}

class OutputFileSystem : public IsolatedTest {};

TEST_F(OutputFileSystem, LinksThatOnlyRootCanMakeAreFollowed) {
    Isolated([] {
        MountTmpfs("/run");
        fs::create_directories("/run/data/log");
        fs::create_directory_symlink("data", "/run/relative");
        fs::create_directory_symlink("/run/relative/./log/", "/run/absolute");
        fs::create_directory_symlink("/run/loop", "/run/loop");
        EXPECT_EQ(AppendToFile("/run/absolute/../log//a.log", SIZE, "x\n").failure, nullptr);
        EXPECT_EQ(ReadFile("/run/data/log/a.log"), "x\n");
        EXPECT_EQ(AppendToFile("/run/loop/a.log", SIZE, "x\n").error, ELOOP);
        ASSERT_EQ(chown("/run/data", 1, 1), 0);
        fs::create_directory_symlink("log", "/run/data/link");
        EXPECT_EQ(AppendToFile("/run/data/link/a.log", SIZE, "x\n").error, ELOOP);
        EXPECT_EQ(AppendToFile("/run/data/log/b.log", SIZE, "x\n").failure, nullptr);
    });
}

TEST_F(OutputFileSystem, LosesWholeLinesAndTheLogSaysSoOnce) {
    Isolated([] {
        MountTmpfs("/run");
        fs::create_directory("/run/full");
        ASSERT_TRUE(Mount("tmpfs", "/run/full", "tmpfs", "size=64k"));
        OutputConfig config;
        config.kind = OutputKind::FILE;
        config.file = "/run/full/a.log";
        std::atomic<uint64_t> dropped{0};
        FileWriter writer(dropped);
        size_t number = 0;
        const auto add = [&](size_t count) {
            std::string lines;
            for (; count > 0; --count) {
                lines += Line(number++);
            }
            writer.Add("svc", config, lines);
        };
        add(1000);
        const std::string about = "the output of svc is ";
        EXPECT_TRUE(LogCapture::WaitFor(
            LOG_ERR, "PROCMGR : " + about + "not written to /run/full/a.log: write failed, errno=" +
                         std::to_string(ENOSPC)));
        EXPECT_TRUE(Tests::WaitUntil([&] { return dropped > 0; }));
        const uint64_t lost = dropped;
        const std::string kept = ReadFile(config.file);
        EXPECT_EQ(std::count(kept.begin(), kept.end(), '\n'), 1000 - static_cast<int>(lost));
        EXPECT_TRUE(kept.ends_with("\n"));
        add(10);
        EXPECT_TRUE(Tests::WaitUntil([&] { return dropped == lost + 10; }));
        fs::resize_file(config.file, 0);
        EXPECT_TRUE(Tests::WaitUntil([&] {
            add(1);
            return !ReadFile(config.file).empty();
        }));
        EXPECT_TRUE(LogCapture::WaitForPart(
            LOG_WARNING,
            about + "written to /run/full/a.log again, " + std::to_string(dropped) + " lines"));
        EXPECT_TRUE(writer.Stop(SteadyTime::max()));
        EXPECT_TRUE(ReadFile(config.file).ends_with(Line(number - 1)));
        EXPECT_EQ(LogCapture::Lines().size(), 2U);
    });
}

TEST(OutputFileWriter, ReportsAtItsEndWhatIsLost) {
    const TempDirectory directory;
    OutputConfig config;
    config.kind = OutputKind::FILE;
    config.file = directory / "missing/a.log";
    std::atomic<uint64_t> dropped{0};
    FileWriter writer(dropped);
    writer.Add("svc", config, "one\ntwo\n");
    EXPECT_TRUE(Tests::WaitUntil([&] { return dropped == 2; }));
    writer.Add("svc", config, "three\n");
    EXPECT_TRUE(writer.Stop(SteadyTime::max()));
    EXPECT_TRUE(LogCapture::Contains(
        LOG_WARNING,
        "PROCMGR : 3 lines of the output of svc are lost, " + config.file + " is not written"));
}

}  // namespace
}  // namespace ProcMgr::Output
