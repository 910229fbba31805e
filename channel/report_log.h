// The log lines about the outcome of a report. The report sender and OwnerReports call them once
// the outcome is known, on any thread.
#pragma once

#include <string>

#include "channel/report_sender.h"

namespace ProcMgr {

void LogSent(const Report& report, const std::string& owner);
// The owner has no open pipe.
void LogNoPipe(const Report& report, const std::string& owner);
// The messaging library has refused a record, and no further attempt is made.
void LogNotSent(const Report& report, const std::string& owner, int fd, int result);
void LogNotPacked(const std::string& owner);
void LogNotCombined(const std::string& owner);

}  // namespace ProcMgr
