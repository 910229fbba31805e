// The heartbeat library: tells the daemon when a registered process has stopped to send its beats
// and when it is back. All calls may be made from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

// Called on a thread of the library. `status` 1: lost, 0: back. Returns 1 when handled, else 0.
using HeartBeatCallback =
    std::function<int(const char* name, size_t nameLength, int32_t pid, uint32_t status)>;

// Watches the beats of the process `pid` under `name`; registering a name again replaces what was
// registered for it. Returns 0 on success.
int RegisterCheckHeartBeat(const char* name, size_t nameLength, int32_t pid,
                           HeartBeatCallback callback);

// Ends the watch of `name`. A callback that is running may still be running on return.
// Returns 0 on success.
int UnregisterCheckHeartBeat(const char* name, size_t nameLength);

// Ends every watch; no callback runs or will run after it returns.
void DisableAllCheckHeartBeat();
