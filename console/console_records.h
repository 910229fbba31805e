// The records for the daemon that a request becomes. Pure functions for any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "console/console_protocol.h"
#include "message/record_codec.h"

namespace ProcMgr::Console {

// The name of the service, which is also the name of its pipe.
inline constexpr const char* OWNER = "pm-console";

// The records of the request. The last one is always a query for the names of QueryNames(): the
// daemon handles the records of a pipe one after the other, so the answer shows that it has handled
// the others. Each application of a launch has a record of its own, because the daemon drops the
// rest of a record after a name that it does not know. Nothing when a text holds a '#', or the
// request does not fit into records.
std::optional<Message::Records> MakeRecords(const Request& request);
std::vector<std::string> QueryNames(const Request& request);

}  // namespace ProcMgr::Console
