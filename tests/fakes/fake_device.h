// The device library for unit tests: keeps every call as one line of text, answers with scripted
// results. Any thread may use it.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/device.h"
#include "tests/fakes/scripted.h"

namespace ProcMgr::Fakes {

class FakeDevice {
public:
    static FakeDevice& Get();
    void Reset();

    // Devices that drvGetDevNum reports; 1 after Reset().
    void SetCount(uint32_t count);
    // The next result of a function, by its name; 0 when none is left.
    void Push(const std::string& function, uint32_t result);

    // "drvGetDevNum", "halSensorNodeRegister 0 NAME 0xTYPE 0xSENSOR",
    // "halSensorNodeUpdateState 0 HANDLE FAULT 0xEVENT", "halSensorNodeUnregister 0 HANDLE",
    // "halGrpCreate NAME SIZE", "halGrpAddProc NAME PID ACCESS".
    std::vector<std::string> Calls() const;

    // For the library's functions only.
    uint32_t Record(const std::string& function, const std::string& arguments);
    uint32_t Count() const;
    uint64_t NextHandle();

private:
    FakeDevice() = default;

    mutable std::mutex mutex_;
    // All guarded by mutex_.
    uint32_t count_ = 1;
    uint64_t nextHandle_ = 1;
    std::map<std::string, Scripted<uint32_t>> results_;
    std::vector<std::string> calls_;
};

}  // namespace ProcMgr::Fakes
