#include "baseservice/child_error_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "main/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr {
namespace {

using namespace std::chrono_literals;
using Fakes::LogCapture;
using Fakes::LogLine;

class ChildErrorReaderTest : public testing::Test {
protected:
    void SetUp() override {
        ProcMgrEnv::GetInstance().CreateChildErrorPipe();
        LogCapture::Clear();
    }
    void TearDown() override { ProcMgrEnv::GetInstance().CloseChildErrorPipe(); }

    static void Write(const std::string& text) {
        ASSERT_EQ(write(ProcMgrEnv::GetInstance().GetChildErrorWriteFd(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }
    static LogLine Line(const std::string& text) {
        return {LOG_WARNING, "pm receive child process errinfo size=" +
                                 std::to_string(text.size()) + ", err: " + text};
    }
};

TEST_F(ChildErrorReaderTest, ReadsInPiecesOfItsBuffer) {
    Write(std::string(1000, 'x'));
    ChildErrorReader::ReadChildErrInfo();
    ChildErrorReader::ReadChildErrInfo();
    EXPECT_EQ(LogCapture::Lines(),
              (std::vector<LogLine>{Line(std::string(899, 'x')), Line(std::string(101, 'x'))}));
}

TEST_F(ChildErrorReaderTest, WithoutAPipeThereIsNothingToRead) {
    ProcMgrEnv::GetInstance().CloseChildErrorPipe();
    ChildErrorReader::ReadChildErrInfo();
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(ChildErrorReaderTest, RunsUntilItIsStopped) {
    std::atomic<bool> running{true};
    ChildErrorReader reader(running);
    std::thread thread([&] { reader.Run(); });
    for (const std::string text : {"app=a,pid=1,one;", "app=b,pid=2,two;"}) {
        Write(text);
        EXPECT_TRUE(LogCapture::WaitFor(LOG_WARNING, Line(text).text, 30s));
    }
    running = false;
    reader.Stop();
    thread.join();
}

}  // namespace
}  // namespace ProcMgr
