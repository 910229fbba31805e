// The one thread that calls the device library, for every room: its calls may take long, and come
// in the order in which they were asked for.
#pragma once

#include "main/common/serial_worker.h"

namespace ProcMgr {

// The process's one worker, made on first use and never destroyed. Any thread.
SerialWorker& DeviceWorker();

}  // namespace ProcMgr
