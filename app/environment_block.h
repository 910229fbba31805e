// The variables of a program that is to be started. The launcher makes one for each start. Not
// thread-safe.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ProcMgr::App {

// Variables in the form NAME=VALUE, each name once.
class EnvironmentBlock {
public:
    // Begins with the variables of the daemon, which does not change them after its start-up.
    EnvironmentBlock();

    // Sets a variable in place of one of the same name. Returns 0, or EINVAL when a variable cannot
    // have this name, or ENOMEM.
    int Set(std::string_view name, std::string_view value);

    const std::vector<std::string>& Get() const { return variables_; }

private:
    std::vector<std::string> variables_;
};

}  // namespace ProcMgr::App
