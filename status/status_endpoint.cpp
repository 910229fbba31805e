#include "status/status_endpoint.h"

#include "main/common/proc_mgr_env.h"
#include "status/document.h"

namespace ProcMgr::Status {

void StatusEndpoint::Start(const std::string& group, DaemonFacts daemon) {
    daemon_ = std::move(daemon);
    daemon_.version = PROCMGR_VERSION;
    server_.Start(STATUS_SOCKET, group);
}

std::string StatusEndpoint::Answer(const Request& request) const {
    if (request.kind == Request::Kind::EVENTS) {
        return WriteEvents(ReadClocks(), ProcMgrEnv::GetInstance().GetPid(),
                           sources_.changes.GetSince(request.number));
    }
    return WriteDocument(
        TakeSnapshot(sources_, output_, daemon_, server_.GetCounters(), request.name));
}

}  // namespace ProcMgr::Status
