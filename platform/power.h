// Power management: the platform tells the daemon before the system is suspended and after it has
// woken up. Both calls below may be made from any thread.
#pragma once

#include <cstdint>
#include <functional>

// Runs on a thread of the library. The platform waits for its return.
using PowerCall = std::function<void()>;

// From now on `suspend` is called before each suspend and `wakeUp` after each resume, never two of
// them at a time. Returns 0, -17 when calls are registered already, or another negative errno.
int32_t RegisterPowerCalls(PowerCall suspend, PowerCall wakeUp);

// Ends the registration; without one it does nothing. Returns 0: no call runs or will be made any
// more. Returns -16 while a call is running, also to that call itself: no further one begins, and
// the caller tries again.
int32_t UnregisterPowerCalls();
