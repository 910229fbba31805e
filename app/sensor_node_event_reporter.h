// Faults of managed processes, reported on the accelerator's sensor nodes so that the platform's
// fault management sees them. One instance for the process, used from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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

    // How many devices there are; 1 when the device library gives no sensible answer.
    static uint32_t GetDeviceNum();

    // Registers the two nodes of the daemon.
    void RegisterNodes();

    // True when the node is registered, now or before.
    bool RegisterSensorNode(const SensorNodeConfig& config);

    // Sends one event to every device of a registered node, unless it is the node's last one.
    // `fault`: see FaultFlag.
    void ReportEvent(const std::string& name, int32_t event, int32_t fault = 0);

    void UnregisterSensorNode(const std::string& name);
    void UnregisterAll();

    // A fault of one application, which stands also before the node is registered. A node shows an
    // event while any application has it; it is cleared when the last one has withdrawn it. Raising
    // or withdrawing twice is raising or withdrawing once.
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
    struct Node {
        bool isRegistered = false;
        uint16_t nodeType = 0;
        uint8_t sensorType = 0;
        int32_t lastEvent = EVENT_NONE;
        std::map<uint32_t, uint64_t> handles;  // by device
        std::vector<Standing> standing;        // in the order raised
    };

    SensorNodeEventReporter() = default;

    // The callers hold mutex_.
    uint32_t DeviceCount();
    std::vector<uint32_t> DevicesOf(const SensorNodeConfig& config);
    static void Send(const std::string& name, Node& node, int32_t event, int32_t fault);
    // Shows the last fault that was raised and stands, or none.
    static void Show(const std::string& name, Node& node);
    static void Unregister(const std::string& name, const Node& node);

    std::mutex mutex_;
    std::map<std::string, Node> nodes_;    // guarded by mutex_
    std::optional<uint32_t> deviceCount_;  // guarded by mutex_; read once
};

}  // namespace ProcMgr::App
