#include "app/sensor_node_event_reporter.h"

#include <chrono>
#include <memory>
#include <utility>

#include "main/common/log.h"
#include "platform/device.h"
#include "platform/securec.h"
#include "resource/device_worker.h"

namespace ProcMgr::App {
namespace {

constexpr uint32_t DEVICES_MAX = 128;
constexpr uint8_t SENSOR_TYPE = 0x27;
constexpr uint16_t BASE_SERVICE_NODE_TYPE = 0x602;
constexpr uint16_t GENERAL_APP_NODE_TYPE = 0x603;
constexpr uint16_t FAULT_NODE_TYPE = 0x617;
constexpr std::chrono::seconds REGISTER_PATIENCE{1};

}  // namespace

SensorNodeEventReporter& SensorNodeEventReporter::GetInstance() {
    // Never destroyed: jobs of the device worker may use it until the process ends.
    static auto* const instance = new SensorNodeEventReporter(DeviceWorker());
    return *instance;
}

uint32_t SensorNodeEventReporter::GetDeviceNum() {
    uint32_t count = 0;
    const uint32_t ret = drvGetDevNum(&count);
    if (ret == 0 && count <= DEVICES_MAX) {
        ProcMgrLog(LOG_INFO, "SensorNodeEventReporter GetDeviceNum success. devNum=%u", count);
        return count;
    }
    ProcMgrLog(LOG_ERR, "SensorNodeEventReporter GetDeviceNum fail. drvRet=%u, devNum=%u", ret,
               count);
    return 1;
}

int32_t SensorNodeEventReporter::FaultFlag(uint16_t nodeType, uint8_t sensorType) {
    return nodeType == FAULT_NODE_TYPE && sensorType != SENSOR_TYPE ? 1 : 0;
}

// When the worker refuses a job because too many wait, isStale_ is set; the next accepted job then
// sends the last stored fault of every node again.
void SensorNodeEventReporter::Post(SerialWorker::Job job) {
    const bool isTaken = worker_.Post([this, job = std::move(job)] {
        job();
        if (isStale_.exchange(false)) {
            ShowAll();
        }
    });
    if (!isTaken) {
        isStale_ = true;
    }
}

// Both in one wait for the worker.
void SensorNodeEventReporter::RegisterNodes() {
    MayWait("the device");
    Post([this] { Register({BASE_SERVICE_NODE, BASE_SERVICE_NODE_TYPE, SENSOR_TYPE}); });
    Post([this] { Register({GENERAL_APP_NODE, GENERAL_APP_NODE_TYPE, SENSOR_TYPE}); });
    worker_.Drain(std::chrono::steady_clock::now() + REGISTER_PATIENCE);
}

bool SensorNodeEventReporter::RegisterSensorNode(const SensorNodeConfig& config) {
    MayWait("the device");
    const auto isRegistered = std::make_shared<std::atomic<bool>>(false);
    Post([this, config, isRegistered] { *isRegistered = Register(config); });
    worker_.Drain(std::chrono::steady_clock::now() + REGISTER_PATIENCE);
    return *isRegistered;
}

uint32_t SensorNodeEventReporter::DeviceCount() {
    if (!deviceCount_) {
        deviceCount_ = GetDeviceNum();
    }
    return *deviceCount_;
}

std::vector<uint32_t> SensorNodeEventReporter::DevicesOf(const SensorNodeConfig& config) {
    if (config.deviceId > 0) {
        return {static_cast<uint32_t>(config.deviceId)};
    }
    std::vector<uint32_t> devices(DeviceCount());
    for (uint32_t device = 0; device < devices.size(); ++device) {
        devices[device] = device;
    }
    return devices;
}

bool SensorNodeEventReporter::Register(const SensorNodeConfig& config) {
    const char* name = config.name.c_str();
    if (nodes_.contains(config.name)) {
        return true;
    }
    HalSensorNodeConfig halConfig{};
    halConfig.nodeType = config.nodeType;
    halConfig.sensorType = config.sensorType;
    if (strncpy_s(halConfig.name, sizeof(halConfig.name), name, config.name.size()) != 0) {
        ProcMgrLog(LOG_ERR,
                   "SensorNodeEventReporter RegisterSensorNode Copy sensor node name for %s "
                   "failed.",
                   name);
        return false;
    }
    Node node;
    node.nodeType = config.nodeType;
    node.sensorType = config.sensorType;
    for (const uint32_t device : DevicesOf(config)) {
        uint64_t handle = 0;
        const uint32_t ret = halSensorNodeRegister(device, &halConfig, &handle);
        if (ret != 0) {
            ProcMgrLog(LOG_ERR,
                       "SensorNodeEventReporter RegisterSensorNode for %s failed. (ret=%u)", name,
                       ret);
            continue;
        }
        node.handles[device] = handle;
    }
    ProcMgrLog(LOG_INFO,
               "SensorNodeEventReporter RegisterSensorNode for %s success, nodeType=0x%x, "
               "sensorType=0x%x, reportIds size=%zu",
               name, node.nodeType, node.sensorType, node.handles.size());
    nodes_[config.name] = std::move(node);
    ShowAll();
    return true;
}

void SensorNodeEventReporter::ReportEvent(const std::string& name, int32_t event, int32_t fault) {
    Post([=, this] {
        const auto node = nodes_.find(name);
        if (node != nodes_.end()) {
            Send(name, node->second, event, fault);
        }
    });
}

void SensorNodeEventReporter::PostShow(const std::string& name, const Faults& faults) {
    Post([this, name, last = faults.empty() ? std::nullopt : std::optional(faults.back())] {
        Show(name, last);
    });
}

void SensorNodeEventReporter::Show(const std::string& name, const std::optional<Fault>& fault) {
    const auto found = nodes_.find(name);
    if (found == nodes_.end()) {
        return;
    }
    Node& node = found->second;
    const int32_t flag =
        fault ? FaultFlag(static_cast<uint16_t>(fault->nodeType), node.sensorType) : 0;
    Send(name, node, fault ? fault->event : EVENT_NONE, flag);
}

void SensorNodeEventReporter::ShowAll() {
    std::map<std::string, Faults> stored;
    {
        const LockGuard lock(mutex_);
        stored = faults_;
    }
    for (const auto& [name, faults] : stored) {
        Show(name, faults.empty() ? std::nullopt : std::optional(faults.back()));
    }
}

void SensorNodeEventReporter::Send(const std::string& name, Node& node, int32_t event,
                                   int32_t fault) {
    if (event == node.lastEvent) {
        return;
    }
    for (const auto& [device, handle] : node.handles) {
        const uint32_t ret = halSensorNodeUpdateState(device, handle, fault, event);
        if (ret == 0) {
            ProcMgrLog(LOG_INFO,
                       "SensorNodeEventReporter ReportEvent "
                       "success.(nodeName=%s,id=%u,fault=%d,event=%d)",
                       name.c_str(), device, fault, event);
        } else {
            ProcMgrLog(LOG_ERR,
                       "SensorNodeEventReporter ReportEvent "
                       "failed.(nodeName=%s,id=%u,fault=%d,event=%d,ret=%u)",
                       name.c_str(), device, fault, event, ret);
        }
    }
    node.lastEvent = event;
}

void SensorNodeEventReporter::Raise(const std::string& name, const std::string& app, int32_t event,
                                    uint32_t nodeType) {
    const LockGuard lock(mutex_);
    Faults& faults = faults_[name];
    std::erase_if(faults,
                  [&](const Fault& fault) { return fault.app == app && fault.event == event; });
    faults.push_back({app, event, nodeType});
    PostShow(name, faults);
}

void SensorNodeEventReporter::Withdraw(const std::string& name, const std::string& app,
                                       int32_t event) {
    const LockGuard lock(mutex_);
    Faults& faults = faults_[name];
    const size_t withdrawn = std::erase_if(
        faults, [&](const Fault& fault) { return fault.app == app && fault.event == event; });
    if (withdrawn > 0) {
        PostShow(name, faults);
    }
}

std::vector<SensorNodeEventReporter::FaultView> SensorNodeEventReporter::GetFaults() const {
    const LockGuard lock(mutex_);
    std::vector<FaultView> views;
    for (const auto& [node, faults] : faults_) {
        for (const Fault& fault : faults) {
            views.push_back({node, fault.app, fault.event});
        }
    }
    return views;
}

void SensorNodeEventReporter::UnregisterSensorNode(const std::string& name) {
    {
        const LockGuard lock(mutex_);
        faults_.erase(name);
    }
    Post([this, name] { Unregister(name); });
}

void SensorNodeEventReporter::UnregisterAll() {
    {
        const LockGuard lock(mutex_);
        faults_.clear();
    }
    Post([this] {
        while (!nodes_.empty()) {
            Unregister(std::string(nodes_.begin()->first));
        }
    });
}

void SensorNodeEventReporter::Unregister(const std::string& name) {
    const auto node = nodes_.find(name);
    if (node == nodes_.end()) {
        return;
    }
    for (const auto& [device, handle] : node->second.handles) {
        const uint32_t ret = halSensorNodeUnregister(device, handle);
        if (ret != 0) {
            ProcMgrLog(LOG_ERR,
                       "SensorNodeEventReporter UnregisterSensorNode for %s failed. (id=%u,ret=%u)",
                       name.c_str(), device, ret);
        }
    }
    nodes_.erase(node);
}

}  // namespace ProcMgr::App
