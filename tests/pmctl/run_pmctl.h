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
        return Take(Child([&] { return Execute(arguments); }));
    }
    // As user 65534.
    PmctlResult RunAsNobody(const std::vector<std::string>& arguments) const {
        return Take(Child(65534, 65534, [&] { return Execute(arguments); }));
    }

private:
    PmctlResult Take(Child child) const {
        PmctlResult result;
        result.code = child.ExitCode();
        result.out = ReadFile(outputs_ / "out");
        result.error = ReadFile(outputs_ / "error");
        return result;
    }

    // In the child; does not return but for a failure.
    int Execute(const std::vector<std::string>& arguments) const {
        std::vector<char*> argv{const_cast<char*>(PMCTL)};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        dup2(out_, STDOUT_FILENO);
        dup2(error_, STDERR_FILENO);
        ftruncate(out_, 0);
        ftruncate(error_, 0);
        lseek(out_, 0, SEEK_SET);
        lseek(error_, 0, SEEK_SET);
        if (chdir(directory_.Path().c_str()) == 0) {
            execv(PMCTL, argv.data());
        }
        return 127;
    }

    const TempDirectory directory_;
    const TempDirectory outputs_;
    const int out_ = open((outputs_ / "out").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const int error_ = open((outputs_ / "error").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
};

}  // namespace ProcMgr::Tests
