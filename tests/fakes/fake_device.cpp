#include "tests/fakes/fake_device.h"

#include <cstring>
#include <sstream>

namespace ProcMgr::Fakes {

// Never destroyed: the device worker may still run at the end of the process.
FakeDevice& FakeDevice::Get() {
    static auto* const fake = new FakeDevice;
    return *fake;
}

void FakeDevice::Reset() {
    const std::lock_guard lock(mutex_);
    count_ = 1;
    nextHandle_ = 1;
    results_.clear();
    calls_.clear();
}

void FakeDevice::SetCount(uint32_t count) {
    const std::lock_guard lock(mutex_);
    count_ = count;
}

void FakeDevice::Push(const std::string& function, uint32_t result) {
    const std::lock_guard lock(mutex_);
    results_.try_emplace(function, 0U).first->second.Push(result);
}

std::vector<std::string> FakeDevice::Calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
}

uint32_t FakeDevice::Record(const std::string& function, const std::string& arguments) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(arguments.empty() ? function : function + ' ' + arguments);
    return results_.try_emplace(function, 0U).first->second.Next();
}

uint32_t FakeDevice::Count() const {
    const std::lock_guard lock(mutex_);
    return count_;
}

uint64_t FakeDevice::NextHandle() {
    const std::lock_guard lock(mutex_);
    return nextHandle_++;
}

}  // namespace ProcMgr::Fakes

using ProcMgr::Fakes::FakeDevice;

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
