#include "console/console_records.h"

#include <algorithm>

#include "message/request_codec.h"

namespace ProcMgr::Console {
namespace {

// Appends the records of one application; false when they cannot be made.
bool AppendRecords(const Request& request, const std::string& name, Message::Records& records) {
    std::optional<Message::Records> made;
    if (IsLaunch(request.command)) {
        Message::StartAppInfo item = request.values;
        item.appName = name;
        made = Message::EncodeLaunchRequests(
            request.command == Command::START ? Message::START_APP : Message::RESTART_APP, {item},
            OWNER);
    } else {
        made = Message::EncodeTermRequests({{name}});
    }
    if (made) {
        records.insert(records.end(), made->begin(), made->end());
    }
    return made.has_value();
}

}  // namespace

std::optional<Message::Records> MakeRecords(const Request& request) {
    Message::Records records;
    if (HasFile(request.command)) {
        const auto record = Message::EncodeStartupCfgRequest(request.command == Command::LOAD
                                                                 ? Message::LOAD_STARTUP_CFG
                                                                 : Message::RELOAD_STARTUP_CFG,
                                                             request.file);
        if (!record) {
            return std::nullopt;
        }
        records.push_back(*record);
    } else if (request.command != Command::QUERY &&
               !std::all_of(request.names.begin(), request.names.end(),
                            [&](const std::string& name) {
                                return AppendRecords(request, name, records);
                            })) {
        return std::nullopt;
    }
    const auto query = Message::EncodeQuery(QueryNames(request));
    if (!query) {
        return std::nullopt;
    }
    records.push_back(*query);
    return records;
}

std::vector<std::string> QueryNames(const Request& request) {
    return HasFile(request.command) ? std::vector<std::string>{OWNER} : request.names;
}

}  // namespace ProcMgr::Console
