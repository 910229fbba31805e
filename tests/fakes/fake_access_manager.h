// The access-manager library for unit tests. Results and hooks that were set before a fork are
// valid in the child too. Any thread may use it.
#pragma once

#include <functional>
#include <utility>

#include "platform/access_manager.h"
#include "tests/fakes/recorder.h"

namespace ProcMgr::Fakes {

class FakeAccessManager {
public:
    static FakeAccessManager& Get() {
        static FakeAccessManager fake;
        return fake;
    }
    void Reset() {
        calls_.Reset();
        isRecording = true;
    }

    // Result and errno of the next ZornInitProc(); 0 without any.
    void PushInit(int result, int error) { calls_.Push(0, {result, error}); }
    // Called at the beginning of each ZornInitProc(), without a lock.
    void SetHook(std::function<void(const AppConfig&)> hook) { calls_.SetHook(0, std::move(hook)); }

    // The result of ZornNeedsOwnMemory() from now on. While it is false, ZornInitProc() succeeds
    // and is not recorded. Set before the children and the launcher exist.
    static void SetNeedsOwnMemory(bool isNeeded) { needsOwnMemory = isNeeded; }
    static bool NeedsOwnMemory() { return needsOwnMemory; }
    // Until the next Reset() ZornInitProc() succeeds and is not recorded: for children that are
    // forked while other threads allocate. A child that allocates then hangs under the address
    // sanitizer, whose allocator does not release its locks after a fork.
    static void StopRecording() { isRecording = false; }
    static bool IsRecording() { return needsOwnMemory && isRecording; }

    // For ZornInitProc() only.
    std::pair<int, int> Init(const AppConfig& config) { return calls_.Add(0, config); }

private:
    inline static bool needsOwnMemory = true;
    inline static bool isRecording = true;
    Recorder<int, AppConfig, std::pair<int, int>> calls_;  // one function: the key is 0
};

}  // namespace ProcMgr::Fakes
