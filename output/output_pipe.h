// The pipe between one process and the daemon.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "main/common/clock.h"
#include "output/line_splitter.h"
#include "platform/manifest_output.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Output {

// A place among the pipes that may be open at a time; given back when the pipe is closed.
struct GiveBack {
    void operator()(std::atomic<size_t>* taken) const { --*taken; }
};
using PipePlace = std::unique_ptr<std::atomic<size_t>, GiveBack>;

// The daemon's end, with what the relay's thread knows of it.
struct OutputPipe {
    PipePlace place;
    Wire::UniqueFd readEnd;
    std::string service;
    OutputConfig config;
    pid_t pid = 0;
    LineSplitter lines;
    SteadyTime flushAt{};  // when the line without an end is taken as it is; 0: there is none
};

// By the descriptor of the read end. A map, because its elements move from one to another without
// any allocation.
using OutputPipes = std::map<int, OutputPipe>;

// What standard output and error of a child are connected to. Closes what is left of it.
struct OutputTarget {
    Wire::UniqueFd writeEnd;  // none: the child inherits the daemon's
    OutputPipes pipe;         // one with the other end, or none when nothing is to be read
};

}  // namespace ProcMgr::Output
