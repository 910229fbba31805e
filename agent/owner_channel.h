// The channel between a service and the daemon that started it: attaches to the service's pipe,
// reports the service's state, sends its heartbeats and its requests for applications, and receives
// what the daemon reports. This is what an owner service includes and keeps one object of.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "agent/heartbeat_sender.h"
#include "message/delay_core_affinity.h"
#include "message/enum_names.h"
#include "message/request_msg.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Agent {

// How often StartHeartbeat beats by default. The daemon calls a service lost after 3000 ms.
inline constexpr std::chrono::milliseconds HEARTBEAT_PERIOD{1000};

// A channel is detached until the daemon's pipe is there, attached while it is connected, and
// detached again when the daemon has gone; from the first Attach on, a thread of the channel tries
// again until the channel is destroyed. The last state reported is reported anew whenever the
// channel has become attached, so a restarted daemon learns it.
//
// All operations may be called from any thread at any time, from callbacks as well; only the
// destructor must not be called from a callback. No signal is handled on the channel's threads.
class OwnerChannel {
public:
    using AppStateCallback = std::function<void(const std::vector<Message::AppStateInfo>&)>;

    // `serviceName` is the name under which the daemon's manifest lists the service. Nothing is
    // opened yet.
    explicit OwnerChannel(std::string serviceName);
    // Waits for a callback that is running, for nothing else.
    ~OwnerChannel();
    OwnerChannel(const OwnerChannel&) = delete;
    OwnerChannel& operator=(const OwnerChannel&) = delete;

    // Starts to attach and waits up to `timeout` for it. False when the channel is not attached by
    // then, and it goes on trying; false at once when no service can have the name, or there is no
    // descriptor or thread to be had.
    bool Attach(std::chrono::milliseconds timeout);
    bool IsAttached() const;

    // Reports the state of the service. True when the report is with the daemon; false when it will
    // be sent as soon as the channel is attached and the daemon reads. Neither waits.
    bool ReportRunning();
    bool ReportTerminating();

    // Likewise any other state. Only from the access manager do INIT and RESTARTING mean anything.
    bool ReportState(BaseServiceStateType state);

    // Ask the daemon to start, restart or end applications. True when all of it is with the daemon;
    // what becomes of each application is told to the OnAppState callback. False when the channel
    // is not attached, when the daemon does not read for 2 s, or when a text holds a '#' or an item
    // is too long for a record or beyond the daemon's limits: in the last three cases nothing was
    // sent. While the daemon does not read they wait, which in a callback holds up the reports.
    bool StartApps(const std::vector<Message::StartAppInfo>& items);
    bool RestartApps(const std::vector<Message::RestartAppInfo>& items);
    bool TermApps(const std::vector<Message::TermAppInfo>& items);

    // Tells the daemon about an application that this service runs itself.
    bool ReportExecution(const Message::AppExecInfo& info);

    // Makes the applications of a file known to the daemon; Reload also forgets those that it gave
    // before. Whether the file is usable shows in the daemon's log.
    bool LoadStartupCfg(const Message::StartupCfgInfo& info);
    bool ReloadStartupCfg(const Message::StartupCfgInfo& info);

    // Asks for the state of applications and waits for the answer: by name 0 alive, 1 gone or
    // unknown, 2 stopped. Nothing when it does not come within `timeout` or before the connection
    // ends, or when the names or their answer do not fit into one record. One query or
    // SetDelayCoreAffinity at a time: further callers wait, up to their time-outs. Not in
    // callbacks, where it returns nothing at once.
    using StatusByName = std::map<std::string, uint32_t>;
    std::optional<StatusByName> QueryAppState(const std::vector<std::string>& names,
                                              std::chrono::milliseconds timeout);

    // Binds the applications that are marked for delayed core affinity to their cores, or undoes
    // that, and waits for the result: DELAY_OK, DELAY_BUSY or DELAY_FAILED. Nothing when it does
    // not come within `timeout` or before the connection ends; the request may be carried out all
    // the same. Takes turns with queries; not in callbacks either.
    std::optional<uint32_t> SetDelayCoreAffinity(const Message::DelayCoreAffinityReq& request,
                                                 std::chrono::milliseconds timeout);

    // Sets what is called, on the channel's thread, for each record of state reports, in the order
    // sent; reports that come while nothing is set are dropped, so set it before Attach. The
    // callback it replaces may still be running when this returns. A callback that takes long holds
    // up the next one, not the heartbeat; it must not throw.
    void OnAppState(AppStateCallback callback);

    // Sends a heartbeat now and each `period`, attached or not; see HeartbeatSender.
    bool StartHeartbeat(std::chrono::milliseconds period = HEARTBEAT_PERIOD);
    void StopHeartbeat();

private:
    bool StartThread();
    void Run();
    // Serves one connection until it ends or the channel is stopped.
    void Serve(int fd);
    bool ReceiveOne(int fd, std::span<uint8_t> buffer);
    void HandleRecord(const Message::RequestMsg& record);
    void HandleResponse(uint64_t sequence, std::optional<uint32_t> result);
    // Waits for `fd` (-1: none), a wake-up or the time-out; false when the channel is stopped.
    bool Wait(int fd, std::chrono::milliseconds timeout, short& events);
    // Sends all in one go, apart from the lists of other callers.
    bool SendAll(const std::optional<std::vector<Message::RequestMsg>>& records);
    // Waits up to `patience` for room in the daemon's queue.
    bool SendOne(std::span<const uint8_t> packet, std::chrono::milliseconds patience);
    // Sends a question when it is its turn and waits until `take`, called with mutex_ held, has got
    // the answer. `sequence`: of the response to it, 0 when it is answered otherwise.
    void Ask(std::span<const uint8_t> packet, uint64_t sequence, std::chrono::milliseconds timeout,
             const std::function<bool()>& take);
    // Both for callers that hold mutex_.
    bool FlushState();
    void Wake() const;

    const std::string serviceName_;
    const std::string path_;  // empty: no service can have the name
    HeartbeatSender heartbeat_;

    std::atomic<uint64_t> lastSequence_{0};

    std::mutex sendMutex_;  // held while a list's records are sent; before mutex_

    mutable std::mutex mutex_;  // guards all that follows
    std::condition_variable attached_;
    Wire::UniqueFd wake_;  // set before the thread starts, then constant
    std::thread thread_;
    bool isStopping_ = false;
    int fd_ = -1;  // the connection, open for as long as this is not -1; owned by the thread
    std::optional<BaseServiceStateType> state_;  // the last one reported
    bool isStateUnsent_ = false;
    std::shared_ptr<const AppStateCallback> onAppState_;
    std::condition_variable answered_;  // one of the following has changed
    bool isAsking_ = false;             // a query or a call is under way
    bool isCut_ = false;                // the connection has ended since that began
    uint64_t sequence_ = 0;             // of the last call; 0: it was a query
    std::optional<StatusByName> answer_;
    std::optional<uint32_t> result_;
};

}  // namespace ProcMgr::Agent
