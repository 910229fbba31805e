#include "app/launch_defaults.h"

#include <sys/resource.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "main/common/line_reader.h"
#include "main/common/log.h"
#include "main/common/numbers.h"
#include "main/common/proc_mgr_env.h"

namespace ProcMgr::App {
namespace {

constexpr const char* PASSWD_FILE = "/etc/passwd";
constexpr const char* DEFAULT_OWNER = "1000:1000";
constexpr const char* COMMON_ENV_FILE = "/etc/korin_common_env.conf";

constexpr std::string_view LOCKED_MEMORY_KEY = "MAX_LOCKED_MEMORY_LIMIT=";
constexpr std::string_view UNLIMITED = "unlimited";
constexpr int HOME_FIELD = 5;  // the number of fields before the home directory

bool ParseLimit(std::string_view text, rlim_t& limit) {
    while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) {
        text.remove_suffix(1);
    }
    if (text == UNLIMITED) {
        limit = RLIM_INFINITY;
        return true;
    }
    const auto number = ParseNumber<rlim_t>(text);
    limit = number.value_or(limit);
    return number.has_value();
}

void ApplyLockedMemoryLimit(std::string_view value) {
    rlim_t limit = 0;
    if (!ParseLimit(value, limit)) {
        ProcMgrLog(LOG_ERR, "PROCMGR: %s: value of %.*s is no number of bytes: %.*s",
                   COMMON_ENV_FILE, static_cast<int>(LOCKED_MEMORY_KEY.size() - 1),
                   LOCKED_MEMORY_KEY.data(), static_cast<int>(value.size()), value.data());
        return;
    }
    const rlimit limits{.rlim_cur = limit, .rlim_max = limit};
    if (setrlimit(RLIMIT_MEMLOCK, &limits) != 0) {
        ProcMgrLog(LOG_ERR, "PROCMGR: setrlimit of locked memory failed, errno=%d", errno);
    }
}

// The home directory in a line of the password file; empty when the line has too few fields.
std::string HomeOf(std::string_view line) {
    for (int field = 0; field < HOME_FIELD; ++field) {
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) {
            return {};
        }
        line.remove_prefix(colon + 1);
    }
    return std::string(line.substr(0, line.find_first_of(":\r\n")));
}

}  // namespace

void SetLockedMemoryLimit() {
    LineReader file(COMMON_ENV_FILE);
    while (const auto line = file.Next()) {
        const size_t key = line->find(LOCKED_MEMORY_KEY);
        if (key != std::string_view::npos) {
            ApplyLockedMemoryLimit(line->substr(key + LOCKED_MEMORY_KEY.size()));
            return;
        }
    }
}

void InquireHomeEnvVariable() {
    LineReader file(PASSWD_FILE);
    if (!file.IsOpen()) {
        ProcMgrLog(LOG_ERR, "fopen %s fail, errno=%d", PASSWD_FILE, errno);
        return;
    }
    while (const auto line = file.Next()) {
        if (line->find(DEFAULT_OWNER) != std::string_view::npos) {
            ProcMgrEnv::GetInstance().SetHome(HomeOf(*line));
            ProcMgrLog(LOG_INFO, "PROCMGR: InquireHomeEnvVariable finished home env=%s",
                       ProcMgrEnv::GetInstance().GetHome().c_str());
            return;
        }
    }
    ProcMgrLog(LOG_WARNING, "PROCMGR: InquireHomeEnvVariable not find %s env", DEFAULT_OWNER);
}

}  // namespace ProcMgr::App
