// Waits for the signal that ends a service. Used by all example services, on their main thread.
#pragma once

#include <chrono>

namespace Example {

// Blocks SIGTERM and SIGINT, so that WaitForStop can take them. Call it before anything else in
// main: threads started later inherit the signal mask.
void TakeStopSignals();

// True when a stop signal has been taken, false after `timeout` without one.
bool WaitForStop(std::chrono::milliseconds timeout);
void WaitForStop();

}  // namespace Example
