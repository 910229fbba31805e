// Where the output of a process goes: the value of the key "output" of a manifest entry. The
// function is not a member of ApplicationManifest, so that a platform library without it still
// links: the daemon calls it only where it is defined.
#pragma once

#include <cstdint>
#include <string>

#include "platform/manifest.h"

namespace ProcMgr {

// What standard output and standard error of a process are connected to.
enum class OutputKind {
    INHERIT,  // what those of the daemon are connected to
    DISCARD,  // nothing: what the process writes is lost
    SYSLOG,   // the system logger, under the name of the process
    FILE,     // a file that the daemon writes
};

struct OutputConfig {
    OutputKind kind = OutputKind::INHERIT;
    std::string file;                   // of FILE: an absolute path
    uint64_t size = uint64_t{1} << 20;  // of FILE: the most bytes that the file may hold
};

// Null in a program whose platform library does not define it. Every process then inherits.
__attribute__((weak)) OutputConfig GetManifestOutput(const ApplicationManifest& manifest);

}  // namespace ProcMgr
