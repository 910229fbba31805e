// Replaces the parts of log lines that differ from run to run, so that tests compare whole lines.
#pragma once

#include <string>

// Boot-trace stamps become "STAMP", the numbers after "pid=" and in "PROCMGR[...]" become "PID",
// the numbers after "pipe fd=" become "N".
std::string MaskLog(std::string line);
