#include "status/request.h"

#include <optional>

#include "main/common/numbers.h"

namespace ProcMgr::Status {
namespace {

constexpr std::string_view STATUS = "status";
constexpr std::string_view STATUS_OF = "status ";
constexpr std::string_view EVENTS_SINCE = "events ";

}  // namespace

Request ParseRequest(std::string_view line) {
    if (line == STATUS) {
        return {Request::Kind::STATUS, {}, 0};
    }
    if (line.starts_with(STATUS_OF) && line.size() > STATUS_OF.size()) {
        return {Request::Kind::STATUS, std::string(line.substr(STATUS_OF.size())), 0};
    }
    if (line.starts_with(EVENTS_SINCE)) {
        if (const auto number = ParseNumber<uint64_t>(line.substr(EVENTS_SINCE.size()))) {
            return {Request::Kind::EVENTS, {}, *number};
        }
    }
    return {};
}

}  // namespace ProcMgr::Status
