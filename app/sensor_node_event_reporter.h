// Reports faults of managed processes on the accelerator's sensor nodes, where the platform's fault
// management reads them. The containers of the records raise and withdraw faults; the daemon
// registers its two nodes at the start and unregisters them at the stop.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "main/common/mutex.h"
#include "main/common/serial_worker.h"

namespace ProcMgr::App {

// The two nodes of the daemon: faults of base services, faults of general applications.
inline constexpr const char* BASE_SERVICE_NODE = "pm_base_service";
inline constexpr const char* GENERAL_APP_NODE = "pm_general_app";

// Event codes. EVENT_NONE clears a node.
inline constexpr int32_t EVENT_NONE = 0;
inline constexpr int32_t EVENT_HEARTBEAT_LOST = 39;
inline constexpr int32_t EVENT_START_FAILED = 208;

struct SensorNodeConfig {
    std::string name;  // at most 19 characters
    uint16_t nodeType = 0;
    uint8_t sensorType = 0;
    int32_t deviceId = -1;  // -1 or 0: every device
};

// All functions are callable from any thread and, unless their comment says otherwise, with a
// container's lock held: they only queue a job. The device worker calls the device library, in the
// order in which the jobs were queued.
class SensorNodeEventReporter {
public:
    // `worker` must outlive this object and have done all its jobs before this object is destroyed.
    explicit SensorNodeEventReporter(SerialWorker& worker) : worker_(worker) {}
    SensorNodeEventReporter(const SensorNodeEventReporter&) = delete;
    SensorNodeEventReporter& operator=(const SensorNodeEventReporter&) = delete;

    // The daemon's one instance, created on first use and never destroyed.
    static SensorNodeEventReporter& GetInstance();

    // The number of devices; 1 when the device library fails or returns an implausible number.
    // Calls the device library, which may take long.
    static uint32_t GetDeviceNum();

    // Registers the two nodes of the daemon. Waits for the device, at most a second for both:
    // not with a lock held.
    void RegisterNodes() PROCMGR_EXCLUDES(mutex_);

    // Registers a node. True when the node is registered, now or before. False when the
    // registration failed or is not done within a second. Not with a lock held.
    bool RegisterSensorNode(const SensorNodeConfig& config) PROCMGR_EXCLUDES(mutex_);

    // Sends an event to every device of a registered node, unless it is the node's last event.
    // Stores nothing: faults of applications are reported by Raise(). `fault` is the fault flag of
    // FaultFlag().
    void ReportEvent(const std::string& name, int32_t event, int32_t fault = 0);

    // Drops the stored faults of a node and unregisters it. The daemon itself does not call this:
    // it unregisters all nodes at its stop.
    void UnregisterSensorNode(const std::string& name) PROCMGR_EXCLUDES(mutex_);
    void UnregisterAll() PROCMGR_EXCLUDES(mutex_);

    // Stores a fault of an application until it is withdrawn; the node need not be registered yet.
    // A node shows the fault that was raised last among its stored ones, and EVENT_NONE when the
    // last one is withdrawn. Raising a stored fault again makes it the last; one Withdraw() removes
    // it, however often it was raised.
    void Raise(const std::string& node, const std::string& app, int32_t event, uint32_t nodeType)
        PROCMGR_EXCLUDES(mutex_);
    void Withdraw(const std::string& node, const std::string& app, int32_t event)
        PROCMGR_EXCLUDES(mutex_);

    // A fault that is raised, for the status endpoint.
    struct FaultView {
        std::string node;
        std::string app;
        int32_t event = EVENT_NONE;
    };
    // In the order of the nodes, then in that in which they were raised.
    std::vector<FaultView> GetFaults() const PROCMGR_EXCLUDES(mutex_);

    // The fault flag of an event: 1 for a node type and sensor type that the device treats
    // specially, else 0.
    static int32_t FaultFlag(uint16_t nodeType, uint8_t sensorType);

private:
    struct Fault {
        std::string app;
        int32_t event;
        uint32_t nodeType;
    };
    using Faults = std::vector<Fault>;  // in the order in which they were raised

    // A node that is registered with the device library.
    struct Node {
        uint16_t nodeType = 0;
        uint8_t sensorType = 0;
        int32_t lastEvent = EVENT_NONE;
        std::map<uint32_t, uint64_t> handles;  // by device
    };

    // Queues a job that shows the last of `faults` on the node.
    void PostShow(const std::string& name, const Faults& faults) PROCMGR_REQUIRES(mutex_);
    void Post(SerialWorker::Job job);

    // Called only by jobs of the worker.
    bool Register(const SensorNodeConfig& config) PROCMGR_EXCLUDES(mutex_);
    uint32_t DeviceCount();
    std::vector<uint32_t> DevicesOf(const SensorNodeConfig& config);
    void Show(const std::string& name, const std::optional<Fault>& fault);
    void ShowAll() PROCMGR_EXCLUDES(mutex_);
    static void Send(const std::string& name, Node& node, int32_t event, int32_t fault);
    void Unregister(const std::string& name);

    SerialWorker& worker_;
    mutable Mutex mutex_;
    std::map<std::string, Faults> faults_ PROCMGR_GUARDED_BY(mutex_);  // by node
    // The worker has refused a job since the nodes were last shown.
    std::atomic<bool> isStale_{false};
    // Used only by jobs of the worker.
    std::map<std::string, Node> nodes_;
    std::optional<uint32_t> deviceCount_;
};

}  // namespace ProcMgr::App
