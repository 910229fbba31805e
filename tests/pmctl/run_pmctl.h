// Runs the program pmctl and keeps what it writes.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/files.h"

namespace ProcMgr::Tests {

struct PmctlResult {
    int code = -1;
    std::string out;
    std::string error;
    bool operator==(const PmctlResult&) const = default;
};

// For failure messages of tests.
inline void PrintTo(const PmctlResult& result, std::ostream* out) {
    *out << "exit code " << result.code << "\n"
         << result.out << "standard error:\n"
         << result.error;
}

// A directory with files, in which pmctl runs.
class PmctlDirectory {
public:
    std::string operator/(const std::string& name) const { return directory_ / name; }
    void Write(const std::string& name, const std::string& text, mode_t mode = 0644) const {
        WriteFile(directory_ / name, text, mode);
    }

    PmctlResult Run(const std::vector<std::string>& arguments) const {
        return Take([&] { return Child([&] { return Execute(arguments); }); });
    }
    // As user 65534.
    PmctlResult RunAsNobody(const std::vector<std::string>& arguments) const {
        return Take([&] { return Child(65534, 65534, [&] { return Execute(arguments); }); });
    }

private:
    template <typename Start>
    PmctlResult Take(Start start) const {
        WriteFile(outputs_ / "out", "");
        WriteFile(outputs_ / "error", "");
        PmctlResult result;
        result.code = start().ExitCode();
        result.out = ReadFile(outputs_ / "out");
        result.error = ReadFile(outputs_ / "error");
        return result;
    }

    // In the child; returns only after a failure. Other users need not be able to reach the
    // program.
    int Execute(const std::vector<std::string>& arguments) const {
        std::vector<char*> argv{const_cast<char*>(PMCTL)};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        dup2(out_, STDOUT_FILENO);
        dup2(error_, STDERR_FILENO);
        if (chdir(directory_.Path().c_str()) == 0) {
            fexecve(program_, argv.data(), environ);
        }
        return 127;
    }

    int OpenOutput(const std::string& name) const {
        return open((outputs_ / name).c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    }

    const TempDirectory directory_;
    const TempDirectory outputs_;
    const int program_ = open(PMCTL, O_PATH | O_CLOEXEC);
    const int out_ = OpenOutput("out");
    const int error_ = OpenOutput("error");
};

}  // namespace ProcMgr::Tests
