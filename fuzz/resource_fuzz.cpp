// Fuzzes the files that resource control reads. The first input byte selects a line of a cpuset or,
// if the process can create a private mount namespace, the host resource file; the other bytes are
// the contents.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "main/common/log.h"
#include "resource/cgroup_mgr.h"
#include "resource/cpuset_file.h"
#include "tests/support/private_mounts.h"

namespace ProcMgr {

// Replaces the system logger. Formats the line, so that an argument that does not fit its format is
// found.
void ProcMgrSysLog(int /*level*/, const char* format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
}

}  // namespace ProcMgr

namespace {

using namespace ProcMgr;

bool HidesHostFile() {
    try {
        return EnterPrivateMountNamespace() && (BindFile("", HOST_RESOURCE_FILE), true);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "the host resource file is left out: %s\n", failure.what());
        return false;
    }
}

void FuzzCpusetLine(const std::string& line) {
    const std::vector<uint32_t> cores = ParseCpusetLine(line, "cpuset.cpus");
    // Each bound of a range has two digits at most, so a range has 100 cores at most and at least
    // one character of the line.
    if (cores.size() > 100 * (line.size() + 1)) {
        std::abort();
    }
}

void FuzzHostFile(const std::string& text) {
    std::ofstream(HOST_RESOURCE_FILE, std::ios::binary) << text;
    CgroupMgr manager;
    manager.ReadCfg();
    CgroupPolicyInfo policy;
    std::snprintf(policy.groupName, sizeof(policy.groupName), "HOST_CPU_SET");
    manager.UpdateCgroup(policy);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool hasHostFile = HidesHostFile();
    if (size == 0) {
        return -1;
    }
    const std::string text(data + 1, data + size);
    if (data[0] % 2 == 0) {
        FuzzCpusetLine(text);
    } else if (hasHostFile) {
        FuzzHostFile(text);
    }
    return 0;
}
