#include "pmctl/context.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace ProcMgr::Pmctl {
namespace {

std::string_view Variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

}  // namespace

bool MayUseColours() {
    const std::string_view terminal = Variable("TERM");
    return isatty(STDOUT_FILENO) == 1 && Variable("NO_COLOR").empty() && !terminal.empty() &&
           terminal != "dumb";
}

}  // namespace ProcMgr::Pmctl
