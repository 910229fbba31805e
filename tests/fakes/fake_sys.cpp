#include "tests/fakes/fake_sys.h"

#include <sched.h>

#include "resource/task_file.h"

namespace ProcMgr::Fakes {

std::vector<std::string> FakeSys::StepCalls() const {
    auto calls = Calls();
    std::erase_if(calls, [](const std::string& call) {
        return call.starts_with("sigaction") || call.starts_with("pthread_sigmask") ||
               call.starts_with("close_range");
    });
    return calls;
}

}  // namespace ProcMgr::Fakes

namespace ProcMgr {

bool AppendTid(const std::string& path, int32_t tid) {
    return Fakes::FakeSys::Get().Record("join " + path + ' ' + std::to_string(tid));
}

bool AppendTidToAll(const std::vector<std::string>& paths, int32_t tid, std::string& error) {
    bool isComplete = true;
    for (const std::string& path : paths) {
        if (!AppendTid(path, tid)) {
            error += "not joined " + path + ";";
            isComplete = false;
        }
    }
    return isComplete;
}

}  // namespace ProcMgr

// Replaces the C library's function.
extern "C" int sched_setaffinity(pid_t pid, size_t /*size*/, const cpu_set_t* cores) noexcept {
    const std::string record =
        "sched_setaffinity " + std::to_string(pid) + ' ' + std::to_string(CPU_COUNT(cores));
    return ProcMgr::Fakes::FakeSys::Get().Record(record) ? 0 : -1;
}
