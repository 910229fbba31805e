// The status endpoint of the daemon: answers the questions about its state that come in at
// /run/process-manager/status.sock. docs/status.md has the protocol. ProcessManager starts and ends
// it, when the settings switch it on.
#pragma once

#include <string>
#include <utility>

#include "main/common/clock.h"
#include "status/output_source.h"
#include "status/request.h"
#include "status/snapshot.h"
#include "status/status_server.h"

namespace ProcMgr::Status {

inline constexpr const char* STATUS_SOCKET = "/run/process-manager/status.sock";

class StatusEndpoint {
public:
    // What `sources` refers to must outlive this object.
    explicit StatusEndpoint(const Sources& sources) : sources_(sources) {}

    // Before Start(), if at all.
    void SetOutput(OutputSource output) { output_ = std::move(output); }
    // The members of `group` may ask; with an empty group only root. The version of `daemon` is
    // filled in here.
    void Start(const std::string& group, DaemonFacts daemon);
    // Wakes the thread, which then ends and removes the socket.
    void Stop() { server_.Stop(); }
    // True when the thread has ended, or has never been started.
    bool Join(SteadyTime end) { return server_.Join(end); }

private:
    std::string Answer(const Request& request) const;

    const Sources sources_;
    OutputSource output_;  // constant after Start(), like the next one
    DaemonFacts daemon_;
    StatusServer server_{[this](const Request& request) { return Answer(request); }};
};

}  // namespace ProcMgr::Status
