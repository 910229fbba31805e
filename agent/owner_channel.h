// The channel between a service and the daemon that started it: attaches to the service's pipe,
// sends the service's state, heartbeats and requests for applications, and receives the daemon's
// reports. An owner service includes this header and keeps one object of the class.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "agent/heartbeat_sender.h"
#include "message/delay_core_affinity.h"
#include "message/enum_names.h"
#include "message/request_msg.h"
#include "wire/mutex.h"
#include "wire/packet.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Agent {

// The default period of StartHeartbeat. The daemon treats a service as lost after 3000 ms.
inline constexpr std::chrono::milliseconds HEARTBEAT_PERIOD{1000};

// A channel is detached until the daemon's pipe exists, attached while it is connected, and
// detached again when the daemon has ended. From the first Attach to the destruction of the
// channel, a thread of the channel connects again whenever the channel is detached. After each
// connect the thread sends the last reported state again, so that a restarted daemon receives it.
//
// All operations may be called from any thread at any time, from callbacks as well; only the
// destructor must not be called from a callback. No signal is handled on the channel's threads.
class OwnerChannel {
public:
    using AppStateCallback = std::function<void(const std::vector<Message::AppStateInfo>&)>;

    // `serviceName` is the name of the service in the daemon's manifest. Nothing is opened yet.
    explicit OwnerChannel(std::string serviceName);
    // Waits for a callback that is running, for nothing else.
    ~OwnerChannel();
    OwnerChannel(const OwnerChannel&) = delete;
    OwnerChannel& operator=(const OwnerChannel&) = delete;

    // Starts to attach and waits up to `timeout` for the connection. False when the channel is not
    // attached by then; its thread goes on trying. False at once when no service can have the name,
    // or the process has no descriptor or thread left.
    bool Attach(std::chrono::milliseconds timeout) PROCMGR_EXCLUDES(mutex_);
    bool IsAttached() const PROCMGR_EXCLUDES(mutex_);

    // Reports the state of the service. True when the report has been sent; false when it is sent
    // later, as soon as the channel is attached and the daemon reads. Neither waits.
    bool ReportRunning();
    bool ReportTerminating();

    // Reports the given state, with the same result. INIT and RESTARTING have an effect only when
    // the access manager reports them.
    bool ReportState(BaseServiceStateType state) PROCMGR_EXCLUDES(mutex_);

    // Ask the daemon to start, restart or end applications. True when all records of the request
    // have been sent; the result for each application is reported to the OnAppState callback. False
    // when the channel is not attached or the daemon does not read for 2 s. False, with nothing
    // sent, when a text holds a '#' or an item is too long for a record or beyond the daemon's
    // limits. The call waits while the daemon does not read; in a callback that delays the reports.
    bool StartApps(const std::vector<Message::StartAppInfo>& items);
    bool RestartApps(const std::vector<Message::RestartAppInfo>& items);
    bool TermApps(const std::vector<Message::TermAppInfo>& items);

    // Reports the state of an application that this service runs itself. Results as above.
    bool ReportExecution(const Message::AppExecInfo& info);

    // Load makes the applications of a start-up configuration file known to the daemon. Reload does
    // so after it has removed the applications of earlier loads. Results as above; an unusable file
    // is reported in the daemon's log only.
    bool LoadStartupCfg(const Message::StartupCfgInfo& info);
    bool ReloadStartupCfg(const Message::StartupCfgInfo& info);

    // Asks for the state of applications and waits for the answer, by name: 0 alive, 1 gone or
    // unknown, 2 stopped. Nothing when the answer does not come within `timeout` or before the
    // connection ends, or when the names or their answer do not fit into one record. One
    // QueryAppState or SetDelayCoreAffinity runs at a time; other callers wait for their turn,
    // within their own time-outs. In a callback the call returns nothing at once.
    using StatusByName = std::map<std::string, uint32_t>;
    std::optional<StatusByName> QueryAppState(const std::vector<std::string>& names,
                                              std::chrono::milliseconds timeout)
        PROCMGR_EXCLUDES(mutex_);

    // Binds the applications that are marked for delayed core affinity to their cores, or undoes
    // that, and waits for the result: DELAY_OK, DELAY_BUSY or DELAY_FAILED. Nothing when the result
    // does not come within `timeout` or before the connection ends; the daemon may have carried the
    // request out all the same. Takes turns with QueryAppState. In a callback the call returns
    // nothing at once.
    std::optional<uint32_t> SetDelayCoreAffinity(const Message::DelayCoreAffinityReq& request,
                                                 std::chrono::milliseconds timeout)
        PROCMGR_EXCLUDES(mutex_);

    // Sets the function that is called, on the channel's thread, for each record of state reports,
    // in the order sent. Reports that arrive while no function is set are dropped, so set it before
    // Attach. The function that is replaced may still be running at the return. A function that
    // takes long delays the next call, not the heartbeat. It must not throw.
    void OnAppState(AppStateCallback callback) PROCMGR_EXCLUDES(mutex_);

    // Sends a heartbeat now and one every `period`, attached or not; see HeartbeatSender.
    bool StartHeartbeat(std::chrono::milliseconds period = HEARTBEAT_PERIOD);
    void StopHeartbeat();

private:
    bool StartThread() PROCMGR_REQUIRES(mutex_);
    // The body of the thread.
    void Run();
    // Serves one connection until it ends or the channel is stopped.
    void Serve(int fd) PROCMGR_EXCLUDES(mutex_);
    // False when the connection has ended, or the daemon has sent something else than a packet.
    bool ReceiveOne(int fd, std::span<uint8_t> buffer);
    void HandleRecord(const Message::RequestMsg& record) PROCMGR_EXCLUDES(mutex_);
    void HandleResponse(uint64_t sequence, std::optional<uint32_t> result) PROCMGR_EXCLUDES(mutex_);
    // Waits for `fd` (-1: none), a wake-up or the time-out; false when the channel is stopped.
    bool Wait(int fd, std::chrono::milliseconds timeout, short& events) PROCMGR_EXCLUDES(mutex_);

    // Sends the records one after the other, with none of another caller's list between them.
    bool SendAll(std::span<const Message::RequestMsg> records) PROCMGR_EXCLUDES(mutex_);
    // Sends one packet; waits up to `patience` while the daemon does not read.
    bool SendOne(const Wire::PacketHeader& header, std::span<const uint8_t> body,
                 std::chrono::milliseconds patience) PROCMGR_EXCLUDES(mutex_);
    // Waits for its turn, sends a question and waits until `take`, called with mutex_ held, has
    // taken the answer. The sequence number of the header is that of the response, or 0 when the
    // answer is a record.
    void Ask(const Wire::PacketHeader& header, std::span<const uint8_t> body,
             std::chrono::milliseconds timeout, const std::function<bool()>& take)
        PROCMGR_EXCLUDES(mutex_);
    // Sends the last reported state if that has not been sent. True when it has.
    bool FlushState() PROCMGR_REQUIRES(mutex_);
    void Wake() const PROCMGR_REQUIRES(mutex_);

    const std::string serviceName_;
    const std::string path_;
    const bool isNameUsable_;  // a service can have the name
    HeartbeatSender heartbeat_;

    std::atomic<uint64_t> lastSequence_{0};

    mutable Wire::Mutex mutex_;
    Wire::Condition attached_;  // fd_ has become valid
    // Created before the thread starts, then constant.
    Wire::UniqueFd wake_ PROCMGR_GUARDED_BY(mutex_);
    std::thread thread_ PROCMGR_GUARDED_BY(mutex_);
    bool isStopping_ PROCMGR_GUARDED_BY(mutex_) = false;
    // The connection, owned by the thread and open as long as this is not -1.
    int fd_ PROCMGR_GUARDED_BY(mutex_) = -1;
    // The last reported state.
    std::optional<BaseServiceStateType> state_ PROCMGR_GUARDED_BY(mutex_);
    bool isStateUnsent_ PROCMGR_GUARDED_BY(mutex_) = false;
    std::shared_ptr<const AppStateCallback> onAppState_ PROCMGR_GUARDED_BY(mutex_);

    Wire::Condition listSent_;  // isSendingList_ has become false
    bool isSendingList_ PROCMGR_GUARDED_BY(mutex_) = false;

    Wire::Condition answered_;                          // one of the fields below has changed
    bool isAsking_ PROCMGR_GUARDED_BY(mutex_) = false;  // a query or a call is under way
    // The connection has ended since the query or call began.
    bool isCut_ PROCMGR_GUARDED_BY(mutex_) = false;
    uint64_t sequence_ PROCMGR_GUARDED_BY(mutex_) = 0;  // of the last call; 0 for a query
    std::optional<StatusByName> answer_ PROCMGR_GUARDED_BY(mutex_);
    std::optional<uint32_t> result_ PROCMGR_GUARDED_BY(mutex_);
};

}  // namespace ProcMgr::Agent
