// The functions of the access-manager, heartbeat and device libraries, as the fakes implement them.
#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

#include "tests/fakes/fake_access_manager.h"
#include "tests/fakes/fake_device.h"
#include "tests/fakes/fake_heartbeat.h"

using ProcMgr::Fakes::FakeAccessManager;
using ProcMgr::Fakes::FakeDevice;
using ProcMgr::Fakes::FakeHeartBeat;

int ZornInitProc(const AppConfig& config) {
    if (!FakeAccessManager::IsRecording()) {
        return 0;
    }
    const auto [result, error] = FakeAccessManager::Get().Init(config);
    errno = error;
    return result;
}

bool ZornNeedsOwnMemory() {
    return FakeAccessManager::NeedsOwnMemory();
}

void ZornRetrieveService() {}

int RegisterCheckHeartBeat(const char* name, size_t nameLength, int32_t pid,
                           HeartBeatCallback callback) {
    return FakeHeartBeat::Get().Register(std::string(name, nameLength), pid, std::move(callback));
}

int UnregisterCheckHeartBeat(const char* name, size_t nameLength) {
    FakeHeartBeat::Get().Unregister(std::string(name, nameLength));
    return 0;
}

void DisableAllCheckHeartBeat() {
    FakeHeartBeat::Get().UnregisterAll();
}

uint32_t drvGetDevNum(uint32_t* count) {
    *count = FakeDevice::Get().Count();
    return FakeDevice::Get().Record("drvGetDevNum", "");
}

uint32_t halSensorNodeRegister(uint32_t device, const HalSensorNodeConfig* config,
                               uint64_t* handle) {
    std::ostringstream arguments;
    arguments << device << ' ' << std::string(config->name, strnlen(config->name, 20)) << std::hex
              << " 0x" << config->nodeType << " 0x" << unsigned{config->sensorType};
    const uint32_t result = FakeDevice::Get().Record("halSensorNodeRegister", arguments.str());
    if (result == 0) {
        *handle = FakeDevice::Get().NextHandle();
    }
    return result;
}

uint32_t halSensorNodeUpdateState(uint32_t device, uint64_t handle, int32_t fault, int32_t event) {
    std::ostringstream arguments;
    arguments << device << ' ' << handle << ' ' << fault << std::hex << " 0x" << event;
    return FakeDevice::Get().Record("halSensorNodeUpdateState", arguments.str());
}

uint32_t halSensorNodeUnregister(uint32_t device, uint64_t handle) {
    return FakeDevice::Get().Record("halSensorNodeUnregister",
                                    std::to_string(device) + ' ' + std::to_string(handle));
}

uint32_t halGrpCreate(const char* name, uint64_t size) {
    return FakeDevice::Get().Record("halGrpCreate", std::string(name) + ' ' + std::to_string(size));
}

uint32_t halGrpAddProc(const char* name, int32_t pid, const char* access) {
    return FakeDevice::Get().Record("halGrpAddProc",
                                    std::string(name) + ' ' + std::to_string(pid) + ' ' + access);
}
