// Faults of managed processes, reported on the accelerator's sensor nodes so that the platform's
// fault management sees them. One instance for the process, used from any thread with any lock
// held: the device library is called by the device worker, in the order of the calls here.
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

// The nodes of the daemon: faults of base services, faults of general applications.
inline constexpr const char* BASE_SERVICE_NODE = "pm_base_service";
inline constexpr const char* GENERAL_APP_NODE = "pm_general_app";

// Event codes. 0: none.
inline constexpr int32_t EVENT_NONE = 0;
inline constexpr int32_t EVENT_HEARTBEAT_LOST = 39;
inline constexpr int32_t EVENT_START_FAILED = 208;

struct SensorNodeConfig {
    std::string name;  // at most 19 characters
    uint16_t nodeType = 0;
    uint8_t sensorType = 0;
    int32_t deviceId = -1;  // -1 or 0: every device
};

class SensorNodeEventReporter {
public:
    static SensorNodeEventReporter& GetInstance();

    // How many devices there are; 1 when the device library gives no sensible answer. Calls the
    // library.
    static uint32_t GetDeviceNum();

    // Registers the two nodes of the daemon. Waits for the device for a moment, no longer.
    void RegisterNodes();

    // True when the node is registered, now or before; false also when the device has not answered
    // within a second. Not with a lock held.
    bool RegisterSensorNode(const SensorNodeConfig& config);

    // Sends one event to every device of a registered node, unless it is the node's last one.
    // `fault`: see FaultFlag.
    void ReportEvent(const std::string& name, int32_t event, int32_t fault = 0);

    void UnregisterSensorNode(const std::string& name);
    void UnregisterAll();

    // A fault of one application, which stands also before the node is registered. A node shows the
    // event that was raised last and stands; raising a standing one makes it the last. The node is
    // cleared when nothing stands any more: withdrawing once is enough, however often it was
    // raised.
    void Raise(const std::string& node, const std::string& app, int32_t event, uint32_t nodeType);
    void Withdraw(const std::string& node, const std::string& app, int32_t event);

    // 1 for a fault of the kind that the device treats in a way of its own, else 0.
    static int32_t FaultFlag(uint16_t nodeType, uint8_t sensorType);

private:
    struct Standing {
        std::string app;
        int32_t event;
        uint32_t nodeType;
    };
    using Faults = std::vector<Standing>;  // in the order raised

    // A node that the device knows.
    struct Node {
        uint16_t nodeType = 0;
        uint8_t sensorType = 0;
        int32_t lastEvent = EVENT_NONE;
        std::map<uint32_t, uint64_t> handles;  // by device
    };

    SensorNodeEventReporter() = default;

    // Shows the last fault of the node that was raised and stands, or none.
    void PostShow(const std::string& name, const Faults& faults) PROCMGR_REQUIRES(mutex_);
    void Post(SerialWorker::Job job);

    // All of these are the device worker's.
    bool Register(const SensorNodeConfig& config);
    uint32_t DeviceCount();
    std::vector<uint32_t> DevicesOf(const SensorNodeConfig& config);
    void Show(const std::string& name, const std::optional<Standing>& fault);
    void ShowAll();
    static void Send(const std::string& name, Node& node, int32_t event, int32_t fault);
    void Unregister(const std::string& name);

    Mutex mutex_;
    std::map<std::string, Faults> standing_;  // by node; guarded by mutex_
    std::atomic<bool> isStale_{false};        // a change found no room with the worker
    // The device worker's.
    std::map<std::string, Node> nodes_;
    std::optional<uint32_t> deviceCount_;  // read once
};

}  // namespace ProcMgr::App
