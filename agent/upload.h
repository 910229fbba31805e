// Upload registration: a process that the daemon may not have started asks the daemon for
// share-pool groups. The program of such a process includes this header; it does not need the class
// OwnerChannel.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "message/upload_record.h"

namespace ProcMgr::Agent {

// Registers the calling process under `name` and asks for `groups` or, when the list is empty, for
// all groups whose configuration names the process. Tries again while the daemon is absent.
//
// Returns the daemon's answer, which may be a refusal (see UploadResult). Nothing when there is no
// answer within `timeout`, when the daemon ends the connection or its answer is malformed, or when
// the name, a group or the path of the executable does not fit into the record.
//
// May be called from any thread, also on several threads at a time; waits up to `timeout`.
std::optional<Message::UploadResponse> RegisterUpload(const std::string& name,
                                                      const std::vector<std::string>& groups,
                                                      std::chrono::milliseconds timeout);

}  // namespace ProcMgr::Agent
