// The one thread that calls the device library, whose calls may take long: so no other thread waits
// for the device, and the calls are made in the order in which they were asked for. ProcessManager
// passes it to SharePool; SensorNodeEventReporter::GetInstance() calls DeviceWorker() itself.
#pragma once

#include "main/common/serial_worker.h"

namespace ProcMgr {

// The process's one worker, created on first use and never destroyed: a call that hangs must not
// hold up the end of the process. Callable from any thread.
SerialWorker& DeviceWorker();

}  // namespace ProcMgr
