// The device library for unit tests: records every call as one line of text and answers with
// scripted results. Any thread may use it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/device.h"
#include "tests/fakes/recorder.h"

namespace ProcMgr::Fakes {

class FakeDevice {
public:
    // Never destroyed: the device worker may still run at the end of the process.
    static FakeDevice& Get() {
        static auto* const fake = new FakeDevice;
        return *fake;
    }
    void Reset() {
        count_ = 1;
        lastHandle_ = 0;
        calls_.Reset();
    }

    // Devices that drvGetDevNum reports; 1 after Reset().
    void SetCount(uint32_t count) { count_ = count; }
    uint32_t Count() const { return count_; }
    // The next result of the function of that name; 0 when none is queued.
    void Push(const std::string& function, uint32_t result) { calls_.Push(function, result); }

    // "drvGetDevNum", "halSensorNodeRegister 0 NAME 0xTYPE 0xSENSOR",
    // "halSensorNodeUpdateState 0 HANDLE FAULT 0xEVENT", "halSensorNodeUnregister 0 HANDLE",
    // "halGrpCreate NAME SIZE", "halGrpAddProc NAME PID ACCESS".
    std::vector<std::string> Calls() const { return calls_.Entries(); }

    // For the faked functions only.
    uint32_t Record(const std::string& function, const std::string& arguments) {
        return calls_.Add(function, arguments.empty() ? function : function + ' ' + arguments);
    }
    uint64_t NextHandle() { return ++lastHandle_; }

private:
    std::atomic<uint32_t> count_{1};
    std::atomic<uint64_t> lastHandle_{0};
    Recorder<std::string, std::string, uint32_t> calls_;
};

}  // namespace ProcMgr::Fakes
