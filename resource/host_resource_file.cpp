#include "resource/host_resource_file.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "main/common/numbers.h"

namespace ProcMgr {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view SPECIAL_CHARACTERS = ":=;_'\"/";
constexpr std::string_view QUOTES = "\"'";
// Keys without effect: the daemon writes no throttle file. Without this list they would be read as
// cgroup sets.
constexpr std::array IGNORED_KEYS = {"HOST_BLKIO_SWITCH"sv, "HOST_BLKIO_WRITE_BPS_SET"sv,
                                     "HOST_BLKIO_READ_BPS_SET"sv};

// The value without a pair of equal quotes around it.
std::string_view Unquote(std::string_view value) {
    const bool isQuoted = value.size() >= 2 && value.front() == value.back() &&
                          QUOTES.find(value.front()) != std::string_view::npos;
    return isQuoted ? value.substr(1, value.size() - 2) : value;
}

HostResourceLine::Kind KindOf(std::string_view key) {
    if (std::find(IGNORED_KEYS.begin(), IGNORED_KEYS.end(), key) != IGNORED_KEYS.end()) {
        return HostResourceLine::Kind::IGNORED;
    }
    return key == HOST_CPU_SWITCH ? HostResourceLine::Kind::SWITCH : HostResourceLine::Kind::SET;
}

CgroupSetEntry MakeEntry(const std::string& group, const std::string& value) {
    using Fault = CgroupSetEntry::Fault;
    if (group.empty() || value.empty()) {
        return {group, value, 0, Fault::EMPTY};
    }
    const auto percentage = ParseLeadingNumber<int32_t>(value);
    return {group, value, percentage.value_or(0), percentage ? Fault::NONE : Fault::NO_NUMBER};
}

}  // namespace

bool IsHostResourceCharacter(char c) {
    const auto character = static_cast<unsigned char>(c);
    return std::isalpha(character) != 0 || (c >= '0' && c <= '9') ||
           SPECIAL_CHARACTERS.find(c) != std::string_view::npos;
}

HostResourceLine ParseHostResourceLine(std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || equals == 0 || equals + 1 == line.size() ||
        !std::all_of(line.begin(), line.end(), IsHostResourceCharacter)) {
        return {};
    }
    const std::string_view key = line.substr(0, equals);
    return {KindOf(key), std::string(key), Unquote(line.substr(equals + 1))};
}

bool ParseCgroupSet(std::string_view value,
                    const std::function<bool(const CgroupSetEntry&)>& take) {
    std::string group;
    std::string token;
    for (const char c : value) {
        if (c == ':') {
            group.swap(token);
            token.clear();
        } else if (c != ';') {
            token += c;
        } else if (take(MakeEntry(group, token))) {
            token.clear();
        } else {
            return false;
        }
    }
    return group.empty() || take(MakeEntry(group, token));
}

}  // namespace ProcMgr
