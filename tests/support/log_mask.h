// Takes out of log lines what differs from run to run, so that they can be compared whole.
#pragma once

#include <string>

// Boot-trace stamps become "STAMP", the numbers behind "pid=" and in "PROCMGR[...]" become "PID",
// those behind "pipe fd=" become "N".
std::string MaskLog(const std::string& line);
