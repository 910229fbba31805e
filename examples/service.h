// What the example services share: waiting for the signal that ends them.
#pragma once

#include <chrono>

namespace Example {

// Takes SIGTERM and SIGINT for WaitForStop; call it first of all in main.
void TakeStopSignals();

// True once a stop signal has come, false when `timeout` has passed before.
bool WaitForStop(std::chrono::milliseconds timeout);
void WaitForStop();

}  // namespace Example
