// The heartbeat library: it calls the daemon when a registered process has stopped to send its
// beats, and when the process sends beats again. All functions may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

// Called on a thread of the library, one call at a time. `name` has `nameLength` characters and a
// NUL and is valid during the call. `status`: 1 lost, 0 recovered. Returns 1 when handled, else 0.
using HeartBeatCallback =
    std::function<int(const char* name, size_t nameLength, int32_t pid, uint32_t status)>;

// Watches the beats of the process `pid` under `name`. A further registration of the name replaces
// the earlier one. Returns 0 on success, else a negative errno.
int RegisterCheckHeartBeat(const char* name, size_t nameLength, int32_t pid,
                           HeartBeatCallback callback);

// Ends the watch of `name`. On return a callback for it may still be running. Returns 0 on success,
// else a negative errno.
int UnregisterCheckHeartBeat(const char* name, size_t nameLength);

// Ends every watch. Waits for a running callback, unless called by this callback itself: after the
// return no callback runs or will run.
void DisableAllCheckHeartBeat();
