// Launches of real programs, observed through /proc, and the reader of the child error pipe.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <mutex>
#include <random>
#include <set>
#include <string_view>
#include <thread>

#include "app/child_error_reader.h"
#include "app/shared_clone.h"
#include "main/common/log.h"
#include "main/common/proc_mgr_env.h"
#include "tests/app/app_test_support.h"
#include "tests/fakes/fake_access_manager.h"
#include "tests/support/files.h"
#include "tests/support/wait.h"

namespace ProcMgr::App {
namespace {

#ifdef PROCMGR_SANITIZED
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif

class MemoryChoice : public testing::WithParamInterface<const char*> {
protected:
    MemoryChoice() { Fakes::FakeAccessManager::SetNeedsOwnMemory(GetParam() == OWN); }
    ~MemoryChoice() override {
        Fakes::FakeAccessManager::SetNeedsOwnMemory(true);
        Fakes::FakeAccessManager::Get().Reset();
    }

    static constexpr std::string_view OWN = "own";
};

// Each test runs with children that are forked and with children that share the memory of this
// process until they execute their program.
class LaunchTest : public MemoryChoice, public AppTest {
protected:
    LaunchTest() { ProcMgrEnv::GetInstance().CreateChildErrorPipe(); }
    ~LaunchTest() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        ProcMgrEnv::GetInstance().CloseChildErrorPipe();
    }

    // Starts a service that sleeps and waits until its program runs.
    void StartSleeping(ManifestData data = SomeService()) {
        data.bin = "/bin/sleep";
        data.args = {"60"};
        BaseAppInfo app(Manifest(data));
        ASSERT_TRUE(StartNow(app));
        pid_ = app.pid_;
        ASSERT_TRUE(Tests::WaitUntil([&] { return StatusValue(pid_, "Name") == "sleep"; }));
    }

    static size_t CountDescriptors() {
        const std::filesystem::directory_iterator entries("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(entries), end(entries)));
    }

    pid_t pid_ = -1;
};

TEST_P(LaunchTest, ALaunchKeepsTheSignalMaskAndPassesOnNoDescriptor) {
    sigset_t mask;
    sigset_t before;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    sigaddset(&mask, SIGTERM);
    pthread_sigmask(SIG_SETMASK, &mask, &before);
    // Not close-on-exec, like a descriptor of a careless library.
    const int fd = open("/dev/null", O_RDONLY);
    StartSleeping();
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &before, &after);
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&after, signal), sigismember(&mask, signal)) << signal;
    }
    // The program may have its libraries open for a moment.
    EXPECT_TRUE(Tests::WaitUntil([&] {
        const std::filesystem::directory_iterator entries(ProcPath(pid_, "fd"));
        return std::distance(begin(entries), end(entries)) == 3;
    })) << "only its standard streams";
    close(fd);
}

TEST_P(LaunchTest, TheOutputGoesWhereTheManifestSaysAndLeavesNoDescriptor) {
    Output::OutputRelay relay;
    ProcessLauncher launcher(CgroupMgr::GetInstance(), CoreAffinityMgr::GetInstance(),
                             BindCount::GetInstance(), nullptr, &relay);
    ManifestData data = SomeService();
    data.bin = "/bin/echo";
    data.args = {"hello"};
    data.output.kind = OutputKind::SYSLOG;
    relay.Prepare("first", data.output, 0);  // makes what is made once
    const size_t descriptors = CountDescriptors();
    for (int start = 0; start < 10; ++start) {
        BaseAppInfo app(Manifest(data));
        std::optional<LaunchPlan> plan = launcher.Prepare(app);
        ASSERT_TRUE(plan && app.StartProcess(launcher, *plan));
        ASSERT_EQ(waitpid(app.pid_, nullptr, 0), app.pid_);
        EXPECT_TRUE(LogCapture::WaitFor(LOG_INFO, "svc[" + std::to_string(app.pid_) + "]: hello"));
        launcher.Prepare(app);  // a plan that is not used
    }
    EXPECT_TRUE(Tests::WaitUntil([&] { return CountDescriptors() == descriptors; }));
}

TEST_P(LaunchTest, AFullErrorPipeDoesNotStopAChild) {
    const int fd = ProcMgrEnv::GetInstance().GetChildErrorWriteFd();
    while (write(fd, "x", 1) == 1) {
    }
    ManifestData data = SomeService();
    data.env = {{"NO=NAME", "1"}};  // cannot be set, which the child reports
    StartSleeping(data);
}

TEST_P(LaunchTest, TheErrorPipeIsReadInPiecesOfABuffer) {
    const std::string text(1000, 'x');
    ASSERT_EQ(write(ProcMgrEnv::GetInstance().GetChildErrorWriteFd(), text.data(), text.size()),
              1000);
    LogCapture::Clear();
    ChildErrorReader::ReadChildErrInfo();
    ChildErrorReader::ReadChildErrInfo();
    ProcMgrEnv::GetInstance().CloseChildErrorPipe();
    ChildErrorReader::ReadChildErrInfo();  // without a pipe it returns at once
    const std::string received = "pm receive child process errinfo size=";
    EXPECT_EQ(LogCapture::Lines(),
              (Lines{{LOG_WARNING, received + "899, err: " + text.substr(0, 899)},
                     {LOG_WARNING, received + "101, err: " + text.substr(0, 101)}}));
}

// The slots of children that share the memory are used up by children that hang.
TEST_P(LaunchTest, AChildThatHangsHoldsUpNoOther) {
    const Tests::TempDirectory directory;
    const std::string fifo = directory / "tasks";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::vector<pid_t> hanging;
    for (int i = 0; i < 6; ++i) {
        BaseAppInfo app(Manifest(SomeService()));
        std::optional<LaunchPlan> plan = launcher_.Prepare(app);
        plan->taskFiles = {fifo};  // opening it waits for a reader
        ASSERT_TRUE(app.StartProcess(launcher_, *plan));
        hanging.push_back(app.pid_);
    }
    StartSleeping();
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    for (const pid_t pid : hanging) {
        int status = -1;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
    }
    close(reader);
}

// Threads that log and allocate hold locks at any moment; children are killed at any step.
TEST_P(LaunchTest, NoneOfManyChildrenIsLostOrHoldsALock) {
    constexpr int STARTS = IS_SANITIZED ? 200 : 2500;
    constexpr int THREADS = 4;
    BaseAppInfo first(Manifest(SomeService()));
    ASSERT_TRUE(StartNow(first));  // makes what is made once
    ASSERT_GT(wait(nullptr), 0);
    const size_t descriptors = CountDescriptors();
    Fakes::FakeAccessManager::StopRecording();
    std::atomic<bool> isRunning{true};
    std::atomic<pid_t> newest{0};
    std::mutex mutex;
    std::set<pid_t> started;
    alarm(300);  // ends the test when a launch hangs
    std::vector<std::thread> noise;
    noise.emplace_back([&] {
        for (unsigned i = 0; isRunning; ++i) {
            ProcMgrLog(LOG_DEBUG, "noise %zu", std::string(i % 5000, 'x').size());
            if (i % 100 == 0) {
                LogCapture::Clear();
            }
        }
    });
    noise.emplace_back([&] {
        std::minstd_rand random(1);
        while (isRunning) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 700));
            const std::lock_guard lock(mutex);
            // Only while it is not collected: the pid cannot be that of another process.
            if (started.contains(newest)) {
                kill(newest, SIGKILL);
            }
        }
    });
    std::vector<std::thread> starters;
    for (int thread = 0; thread < THREADS; ++thread) {
        starters.emplace_back([&] {
            ManifestData data = SomeService();
            data.env = {{"A", std::string(500, 'a')}};
            for (int i = 0; i < STARTS; ++i) {
                GeneralAppInfo app = GeneralApp(data);
                std::optional<LaunchPlan> plan = launcher_.Prepare(app);
                const std::lock_guard lock(mutex);
                ASSERT_TRUE(plan && app.StartProcess(launcher_, *plan));
                EXPECT_TRUE(started.insert(app.pid_).second);
                newest = app.pid_;
            }
        });
    }
    for (int collected = 0; collected < THREADS * STARTS; ++collected) {
        siginfo_t exit{};
        while (waitid(P_ALL, 0, &exit, WEXITED | WNOWAIT) != 0) {
            ASSERT_EQ(errno, ECHILD);  // for the moment
            std::this_thread::yield();
        }
        const std::lock_guard lock(mutex);
        EXPECT_EQ(started.erase(exit.si_pid), 1U);
        EXPECT_TRUE(exit.si_status == 0 || exit.si_status == SIGKILL) << exit.si_status;
        waitpid(exit.si_pid, nullptr, 0);
    }
    isRunning = false;
    for (std::vector<std::thread>* threads : {&starters, &noise}) {
        for (std::thread& thread : *threads) {
            thread.join();
        }
    }
    alarm(0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(CountDescriptors(), descriptors);
    StartSleeping();
}

// A process of the child's new user must not read or change the memory, which is the daemon's.
TEST_P(LaunchTest, TheMemoryIsProtectedFromTheUserOfAChild) {
    ManifestData data = SomeService();
    data.uid = data.gid = 1;
    BaseAppInfo app(Manifest(data));
    std::optional<LaunchPlan> plan = launcher_.Prepare(app);
    if (!plan || getuid() != 0) {
        GTEST_SKIP() << "the test needs root and a user of its own";
    }
    const bool isShared = plan->slot.IsValid();
    prctl(PR_SET_DUMPABLE, 1);
    ASSERT_TRUE(app.StartProcess(launcher_, *plan));
    ASSERT_EQ(waitpid(app.pid_, nullptr, 0), app.pid_);
    EXPECT_EQ(prctl(PR_GET_DUMPABLE), isShared ? 0 : 1);
}

std::atomic<int> handledSignals{0};

// The child sends itself a signal that this process handles.
TEST(SharedCloneTest, AHandlerOfTheParentRunsInAChildOnlyIfItHasHandlers) {
    signal(SIGUSR2, [](int) { ++handledSignals; });
    std::vector<std::max_align_t> stack(4096);
    SharedChild child;
    pid_t word = 0;
    child.stack = stack.data();
    child.stackSize = stack.size() * sizeof(stack[0]);
    child.threadPointer = GetThreadPointer();
    child.word = &word;
    child.run = [](void* argument) {
        syscall(SYS_kill, syscall(SYS_getpid), SIGUSR2);
        syscall(SYS_exit, *static_cast<int*>(argument));
        return 0;
    };
    int exitStatus = 3;
    child.argument = &exitStatus;
    for (const bool hasHandlers : {false, true}) {
        const pid_t pid = !MAY_SHARE_MEMORY ? -1
                          : hasHandlers     ? CloneWithHandlers(child)
                                            : CloneWithoutHandlers(child);
        if (pid < 0) {
            GTEST_SKIP() << "not with this processor, kernel or sanitizer";
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, hasHandlers ? W_EXITCODE(exitStatus, 0) : W_EXITCODE(0, SIGUSR2));
        EXPECT_EQ(handledSignals, hasHandlers ? 1 : 0);
        EXPECT_EQ(word, 0);
    }
    signal(SIGUSR2, SIG_DFL);
}

INSTANTIATE_TEST_SUITE_P(Memory, LaunchTest, testing::Values("own", "shared"),
                         [](const auto& memory) { return std::string(memory.param); });

}  // namespace
}  // namespace ProcMgr::App
