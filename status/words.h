// The words of the document for the values of the daemon. Pure functions for any thread.
#pragma once

#include <cstdint>
#include <string>

#include "app/child_fault.h"
#include "app/start_refusal.h"
#include "app/state_change.h"

namespace ProcMgr::App {
struct AppFacts;
}

namespace ProcMgr::Status {

// How a process has ended, by its raw wait status: "exited with status 3", "killed by signal 9
// (SIGKILL)", "killed by signal 11 (SIGSEGV), core dumped".
std::string DescribeExit(int32_t status);

// Why a start has been refused, with the values that have been refused.
std::string DescribeRefusal(App::StartRefusal refusal, const App::AppFacts& facts);

// Why a child has ended without executing its program.
std::string DescribeChildFault(const App::ChildFault& fault, const App::AppFacts& facts);

// "started", "found running", ...
const char* NameOf(App::ChangeReason reason);

// "heartbeat lost" and "start failed"; other events by their number.
std::string DescribeFault(int32_t event);

}  // namespace ProcMgr::Status
