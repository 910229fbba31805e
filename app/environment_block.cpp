#include "app/environment_block.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

namespace ProcMgr::App {

EnvironmentBlock::EnvironmentBlock() {
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        variables_.emplace_back(*variable);
    }
}

int EnvironmentBlock::Set(std::string_view name, std::string_view value) try {
    if (name.empty() || name.find('=') != std::string_view::npos) {
        return EINVAL;
    }
    std::string variable(name);
    variable += '=';
    const auto present =
        std::find_if(variables_.begin(), variables_.end(),
                     [&](const std::string& other) { return other.starts_with(variable); });
    variable += value;
    if (present == variables_.end()) {
        variables_.push_back(std::move(variable));
    } else {
        *present = std::move(variable);
    }
    return 0;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

}  // namespace ProcMgr::App
