#include "tests/fakes/fake_sys.h"

#include <sched.h>

#include <cerrno>

#include "app/environment_block.h"
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

// Without the variables of the test's own process.
App::EnvironmentBlock::EnvironmentBlock() = default;

int App::EnvironmentBlock::Set(std::string_view name, std::string_view value) {
    const std::string variable = std::string(name) + '=' + std::string(value);
    if (!Fakes::FakeSys::Get().Record("setenv " + variable)) {
        return errno;
    }
    variables_.push_back(variable);
    return 0;
}

}  // namespace ProcMgr

// Replaces the C library's function.
extern "C" int sched_setaffinity(pid_t pid, size_t /*size*/, const cpu_set_t* cores) noexcept {
    const std::string record =
        "sched_setaffinity " + std::to_string(pid) + ' ' + std::to_string(CPU_COUNT(cores));
    return ProcMgr::Fakes::FakeSys::Get().Record(record) ? 0 : -1;
}
