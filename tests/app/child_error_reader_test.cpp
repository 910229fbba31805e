#include "app/child_error_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "main/common/proc_mgr_env.h"
#include "tests/fakes/log_capture.h"

namespace ProcMgr {
namespace {

using Fakes::LogCapture;
using Fakes::LogLine;

TEST(ChildErrorReader, ReadsInPiecesOfItsBuffer) {
    const auto line = [](size_t size) {
        return LogLine{LOG_WARNING, "pm receive child process errinfo size=" +
                                        std::to_string(size) + ", err: " + std::string(size, 'x')};
    };
    ProcMgrEnv::GetInstance().CreateChildErrorPipe();
    const std::string text(1000, 'x');
    ASSERT_EQ(write(ProcMgrEnv::GetInstance().GetChildErrorWriteFd(), text.data(), text.size()),
              1000);
    LogCapture::Clear();
    ChildErrorReader::ReadChildErrInfo();
    ChildErrorReader::ReadChildErrInfo();
    ProcMgrEnv::GetInstance().CloseChildErrorPipe();
    ChildErrorReader::ReadChildErrInfo();  // there is nothing to read from
    EXPECT_EQ(LogCapture::Lines(), (std::vector<LogLine>{line(899), line(101)}));
}

}  // namespace
}  // namespace ProcMgr
