// The report: one page of HTML that needs nothing else, neither script nor file.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

// The whole page.
std::string MakeReport(const Snapshot& snapshot);

// Its parts; each returns an element. All texts are escaped.
std::string ReportServices(const Snapshot& snapshot);
std::string ReportEvents(const Snapshot& snapshot);
std::string ReportPipes(const Snapshot& snapshot);
std::string ReportFaults(const Snapshot& snapshot);
std::string ReportCounters(const Snapshot& snapshot);

// The style sheet.
extern const std::string_view REPORT_STYLE;

}  // namespace ProcMgr::Pmctl
