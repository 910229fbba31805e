#include "app/sensor_node_event_reporter.h"

#include <algorithm>

#include "main/log.h"
#include "platform/device.h"
#include "platform/securec.h"

namespace ProcMgr::App {
namespace {

constexpr uint32_t DEVICES_MAX = 128;
constexpr uint8_t SENSOR_TYPE = 0x27;
constexpr uint16_t BASE_SERVICE_NODE_TYPE = 0x602;
constexpr uint16_t GENERAL_APP_NODE_TYPE = 0x603;
constexpr uint16_t FAULT_NODE_TYPE = 0x617;

}  // namespace

SensorNodeEventReporter& SensorNodeEventReporter::GetInstance() {
    static SensorNodeEventReporter instance;
    return instance;
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

void SensorNodeEventReporter::RegisterNodes() {
    RegisterSensorNode({BASE_SERVICE_NODE, BASE_SERVICE_NODE_TYPE, SENSOR_TYPE});
    RegisterSensorNode({GENERAL_APP_NODE, GENERAL_APP_NODE_TYPE, SENSOR_TYPE});
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

bool SensorNodeEventReporter::RegisterSensorNode(const SensorNodeConfig& config) {
    const std::lock_guard lock(mutex_);
    const char* name = config.name.c_str();
    if (const auto known = nodes_.find(config.name);
        known != nodes_.end() && known->second.isRegistered) {
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
    Node& node = nodes_[config.name];
    node.isRegistered = true;
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
    Show(config.name, node);
    return true;
}

void SensorNodeEventReporter::ReportEvent(const std::string& name, int32_t event, int32_t fault) {
    const std::lock_guard lock(mutex_);
    const auto node = nodes_.find(name);
    if (node != nodes_.end() && node->second.isRegistered) {
        Send(name, node->second, event, fault);
    }
}

void SensorNodeEventReporter::Show(const std::string& name, Node& node) {
    if (!node.isRegistered) {
        return;
    }
    if (node.standing.empty()) {
        Send(name, node, EVENT_NONE, 0);
        return;
    }
    const Standing& last = node.standing.back();
    Send(name, node, last.event, FaultFlag(static_cast<uint16_t>(last.nodeType), node.sensorType));
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
    const std::lock_guard lock(mutex_);
    Node& node = nodes_[name];
    const bool isStanding = std::any_of(
        node.standing.begin(), node.standing.end(),
        [&](const Standing& standing) { return standing.app == app && standing.event == event; });
    if (isStanding) {
        return;
    }
    node.standing.push_back({app, event, nodeType});
    Show(name, node);
}

void SensorNodeEventReporter::Withdraw(const std::string& name, const std::string& app,
                                       int32_t event) {
    const std::lock_guard lock(mutex_);
    const auto found = nodes_.find(name);
    if (found == nodes_.end()) {
        return;
    }
    Node& node = found->second;
    const size_t withdrawn = std::erase_if(node.standing, [&](const Standing& standing) {
        return standing.app == app && standing.event == event;
    });
    if (withdrawn > 0) {
        Show(name, node);
    }
}

void SensorNodeEventReporter::UnregisterSensorNode(const std::string& name) {
    const std::lock_guard lock(mutex_);
    const auto node = nodes_.find(name);
    if (node != nodes_.end()) {
        Unregister(name, node->second);
        nodes_.erase(node);
    }
}

void SensorNodeEventReporter::UnregisterAll() {
    const std::lock_guard lock(mutex_);
    for (const auto& [name, node] : nodes_) {
        Unregister(name, node);
    }
    nodes_.clear();
}

void SensorNodeEventReporter::Unregister(const std::string& name, const Node& node) {
    for (const auto& [device, handle] : node.handles) {
        const uint32_t ret = halSensorNodeUnregister(device, handle);
        if (ret != 0) {
            ProcMgrLog(LOG_ERR,
                       "SensorNodeEventReporter UnregisterSensorNode for %s failed. (id=%u,ret=%u)",
                       name.c_str(), device, ret);
        }
    }
}

}  // namespace ProcMgr::App
