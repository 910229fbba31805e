// Power management: the platform calls the daemon before the system is suspended and after it has
// woken up. Both functions below may be called from any thread.
#pragma once

#include <cstdint>
#include <functional>

// Runs on a thread of the library. The platform waits for its return.
using PowerCall = std::function<void()>;

// Registers `suspend`, called before each suspend, and `wakeUp`, called after each resume; one call
// runs at a time. Returns 0, -17 when calls are registered already, or another negative errno.
int32_t RegisterPowerCalls(PowerCall suspend, PowerCall wakeUp);

// Ends the registration; without a registration it does nothing. After a result of 0 no call runs
// or will be made. Returns -16 while a call is running, also when this call itself unregisters: no
// further call begins, and the caller tries again.
int32_t UnregisterPowerCalls();
