// The relay between the pipes of services and the logger, with services that write in any way.
#include "output/output_relay.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "tests/fakes/log_capture.h"
#include "tests/support/files.h"
#include "tests/support/wait.h"

namespace ProcMgr::Output {
namespace {

using namespace std::chrono_literals;
using Fakes::LogCapture;
using Fakes::LogLine;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;

OutputConfig To(OutputKind kind, const std::string& file = "") {
    OutputConfig config;
    config.kind = kind;
    config.file = file;
    return config;
}
const OutputConfig SYSLOG = To(OutputKind::SYSLOG);

size_t CountIn(const char* directory) {
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class OutputRelayTest : public testing::Test {
protected:
    OutputRelayTest() {
        signal(SIGPIPE, SIG_IGN);
        LogCapture::Clear();
        LogCapture::SetFull(false);
    }

    // The end into which a process of the service writes.
    Wire::UniqueFd Start(const std::string& service, const OutputConfig& config = SYSLOG,
                         pid_t pid = 7) {
        OutputTarget target = relay_.Prepare(service, config, getuid());
        Wire::UniqueFd end(fcntl(target.writeEnd.Get(), F_DUPFD_CLOEXEC, 0));
        relay_.Adopt(std::move(target), pid);
        return end;
    }
    static void Write(const Wire::UniqueFd& end, std::string_view text) {
        while (!text.empty()) {
            const ssize_t size = write(end.Get(), text.data(), text.size());
            ASSERT_GT(size, 0);
            text.remove_prefix(static_cast<size_t>(size));
        }
    }
    static bool WaitForLine(const std::string& text) { return LogCapture::WaitFor(LOG_INFO, text); }
    // How many lines about the output of a service that is left out, and how many are missing.
    static std::pair<size_t, uint64_t> LeftOut(const std::string& service) {
        std::pair<size_t, uint64_t> result;
        for (const LogLine& line : LogCapture::Lines()) {
            if (line.text.find(" lines of the output of " + service) != std::string::npos) {
                ++result.first;
                result.second += std::stoull(line.text.substr(std::string("PROCMGR : ").size()));
            }
        }
        return result;
    }

    OutputRelay relay_;
};

TEST_F(OutputRelayTest, LinesReachTheLoggerUnderTheNameAndPidOfTheirProcess) {
    const auto begin = steady_clock::now();
    Wire::UniqueFd one = Start("one", SYSLOG, 11);
    const Wire::UniqueFd two = Start("two", SYSLOG, 22);
    Write(one, "hello\n\n\x1b[0m%s\nquest");
    Write(two, "no end");
    EXPECT_TRUE(WaitForLine("one[11]: hello"));
    EXPECT_TRUE(WaitForLine("one[11]: ?[0m%s"));
    EXPECT_TRUE(WaitForLine("two[22]: no end"));
    EXPECT_GE(steady_clock::now() - begin, 1s);
    Write(one, "ion\nlast");
    one.Reset();
    EXPECT_TRUE(WaitForLine("one[11]: last")) << "at the end of the file";
    EXPECT_EQ(LogCapture::Lines().size(), 6U) << "with quest and ion";
    EXPECT_TRUE(Tests::WaitUntil([&] { return relay_.LastLines("one").size() == 5; }));
    EXPECT_THAT(relay_.LastLines("one"), ElementsAre("hello", "?[0m%s", "quest", "ion", "last"));
    EXPECT_EQ(relay_.GetOutput("one"), "syslog");
    EXPECT_EQ(relay_.GetDroppedLines(), 0U);
}

TEST_F(OutputRelayTest, AServiceThatWritesWithoutPauseStarvesNobody) {
    const auto start = steady_clock::now();
    const Wire::UniqueFd flood = Start("flood");
    const Wire::UniqueFd endless = Start("endless");
    const Wire::UniqueFd calm = Start("calm");
    std::atomic<bool> isOver{false};
    std::atomic<uint64_t> written{0};
    const std::string lines = [] {
        std::string text;
        for (int i = 0; i < 1000; ++i) {
            text += "y\n";
        }
        return text;
    }();
    std::thread flooding([&] {
        while (!isOver) {
            Write(flood, lines);
            written += 1000;
        }
    });
    std::thread one([&] {
        while (!isOver) {
            Write(endless, std::string(5000, 'x'));
        }
    });
    for (int i = 0; i < 40; ++i) {
        const auto begin = steady_clock::now();
        Write(calm, "calm " + std::to_string(i) + "\n");
        EXPECT_TRUE(WaitForLine("calm[7]: calm " + std::to_string(i)));
        EXPECT_LT(steady_clock::now() - begin, 1s * Tests::SLOWER);
        std::this_thread::sleep_for(50ms);
    }
    isOver = true;
    flooding.join();
    one.join();
    EXPECT_TRUE(relay_.Stop(steady_clock::now() + Tests::PATIENCE));
    const size_t passed = LogCapture::Count(LOG_INFO, "flood[7]: y");
    EXPECT_GE(passed, 1000U);
    const auto seconds = static_cast<size_t>((steady_clock::now() - start) / 1s);
    EXPECT_LE(passed, 1000 * (seconds + 1));
    EXPECT_EQ(LogCapture::Count(LOG_INFO, "calm[7]: calm 39"), 1U);
    const auto [reports, leftOut] = LeftOut("flood");
    EXPECT_LE(reports, 2 + seconds / 10) << "the first, one in ten seconds, one at the end";
    EXPECT_EQ(passed + leftOut, written);
    EXPECT_GE(relay_.GetDroppedLines(), leftOut);
    EXPECT_EQ(relay_.LastLines("flood").size(), 20U);
    EXPECT_EQ(relay_.LastLines("endless").front(), std::string(200, 'x'));
}

TEST_F(OutputRelayTest, ALoggerThatTakesNothingHoldsUpNoService) {
    const Wire::UniqueFd end = Start("svc");
    LogCapture::SetFull(true);
    for (int i = 0; i < 900; ++i) {
        Write(end, std::string(500, 'x') + "\n");
    }
    EXPECT_TRUE(Tests::WaitUntil([&] { return relay_.GetDroppedLines() == 900; }));
    LogCapture::SetFull(false);
    Write(end, "again\n");
    EXPECT_TRUE(WaitForLine("svc[7]: again"));
}

TEST_F(OutputRelayTest, OfThreePipesOfAServiceTheOldestIsClosed) {
    // As if two processes had left theirs to others that go on.
    const Wire::UniqueFd first = Start("svc", SYSLOG, 1);
    const Wire::UniqueFd second = Start("svc", SYSLOG, 2);
    Write(first, "before");
    const Wire::UniqueFd third = Start("svc", SYSLOG, 3);
    EXPECT_TRUE(WaitForLine("svc[1]: before"));
    EXPECT_TRUE(Tests::WaitUntil([&] { return write(first.Get(), "x", 1) < 0; }));
    Write(second, "two\n");
    Write(third, "three\n");
    EXPECT_TRUE(WaitForLine("svc[2]: two"));
    EXPECT_TRUE(WaitForLine("svc[3]: three"));
}

TEST_F(OutputRelayTest, WithoutTheKeyThereIsNoThreadAndNoDescriptor) {
    const size_t descriptors = CountIn("/proc/self/fd");
    const size_t threads = CountIn("/proc/self/task");
    EXPECT_FALSE(relay_.Prepare("svc", {}, 0).writeEnd.IsValid());
    EXPECT_EQ(relay_.GetOutput("svc"), "inherit");
    EXPECT_EQ(relay_.GetOutput("unknown"), "inherit");
    OutputTarget null = relay_.Prepare("svc", To(OutputKind::DISCARD), 0);
    EXPECT_EQ(relay_.GetOutput("svc"), "null");
    EXPECT_EQ(write(null.writeEnd.Get(), "x", 1), 1);
    EXPECT_EQ(CountIn("/proc/self/fd"), descriptors + 1);
    relay_.Adopt(std::move(null), 7);
    EXPECT_EQ(CountIn("/proc/self/fd"), descriptors);
    EXPECT_EQ(CountIn("/proc/self/task"), threads);
}

TEST_F(OutputRelayTest, ManyProcessesLeaveNoDescriptorAndAreBoundedByTheirNumber) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{400, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    OutputRelay relay;
    setrlimit(RLIMIT_NOFILE, &before);
    relay.Prepare("started", SYSLOG, 0);  // starts the thread; the process is never made
    const size_t descriptors = CountIn("/proc/self/fd");
    for (int i = 0; i < 600; ++i) {
        const std::string name = "s" + std::to_string(i);
        OutputTarget target = relay.Prepare(name, SYSLOG, 0);
        relay.Prepare("failed", SYSLOG, 0);
        ASSERT_FALSE(target.pipe.empty());
        Write(target.writeEnd, "of " + name + "\n");
        relay.Adopt(std::move(target), 1);
        if (i % 150 == 149) {
            EXPECT_TRUE(Tests::WaitUntil([&] { return CountIn("/proc/self/fd") == descriptors; }));
            EXPECT_TRUE(WaitForLine(name + "[1]: of " + name));
        }
    }
    EXPECT_EQ(LogCapture::Lines().size(), 600U);
    LogCapture::Clear();
    std::vector<OutputTarget> targets;
    while (targets.size() < 201) {
        targets.push_back(relay.Prepare("many", SYSLOG, 0));
    }
    EXPECT_FALSE(targets[199].pipe.empty());
    EXPECT_TRUE(targets[200].pipe.empty()) << "half of the descriptors are for the daemon";
    EXPECT_EQ(write(targets[200].writeEnd.Get(), "x", 1), 1);
    EXPECT_TRUE(LogCapture::Contains(
        LOG_ERR, "PROCMGR : the output of many is lost, no pipe for it, errno=24"));
}

TEST_F(OutputRelayTest, TheStopHandsOnWhatIsInThePipes) {
    const Tests::TempDirectory directory;
    const Wire::UniqueFd end = Start("svc");
    const Wire::UniqueFd file = Start("filed", To(OutputKind::FILE, directory / "filed.log"));
    std::string text;
    for (int i = 0; i < 500; ++i) {
        text += "line " + std::to_string(i) + "\n";
    }
    Write(end, text + "no end");
    Write(file, text);
    EXPECT_TRUE(relay_.Stop(steady_clock::now() + Tests::PATIENCE));
    EXPECT_EQ(LogCapture::Lines().size(), 501U);
    EXPECT_TRUE(LogCapture::Contains(LOG_INFO, "svc[7]: no end"));
    EXPECT_EQ(Tests::ReadFile(directory / "filed.log"), text);
    EXPECT_EQ(relay_.GetOutput("filed"), "file:" + directory / "filed.log");
}

}  // namespace
}  // namespace ProcMgr::Output
