#include "resource/device_worker.h"

namespace ProcMgr {

SerialWorker& DeviceWorker() {
    static auto* const worker = new SerialWorker("device");
    return *worker;
}

}  // namespace ProcMgr
