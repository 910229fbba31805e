#include "platform/host/primary_group.h"

#include <pwd.h>

#include <cerrno>
#include <cstddef>
#include <vector>

namespace PlatformHost {
namespace {

constexpr size_t FIRST_USER_RECORD = 1024;
constexpr size_t MAX_USER_RECORD = size_t{1} << 20;

}  // namespace

std::optional<uint32_t> PrimaryGroup(uint32_t uid) {
    std::vector<char> buffer(FIRST_USER_RECORD);
    passwd record{};
    passwd* found = nullptr;
    int result = getpwuid_r(uid, &record, buffer.data(), buffer.size(), &found);
    while ((result == ERANGE && buffer.size() < MAX_USER_RECORD) || result == EINTR) {
        buffer.resize(buffer.size() * 2);
        result = getpwuid_r(uid, &record, buffer.data(), buffer.size(), &found);
    }
    if (result == EIO || result == EMFILE || result == ENFILE || result == ENOMEM ||
        result == ERANGE) {
        return std::nullopt;
    }
    return found == nullptr ? 0 : record.pw_gid;
}

}  // namespace PlatformHost
