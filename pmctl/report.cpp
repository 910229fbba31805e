// pmctl report: all that is known as one page.
#include "pmctl/ask.h"
#include "pmctl/online.h"
#include "pmctl/output_file.h"
#include "pmctl/report_page.h"

namespace ProcMgr::Pmctl {

void WriteReport(const Context& context, const std::string& html) {
    RefuseJson(context, "report");
    WriteOutput(context, html, MakeReport(AskStatus(context).snapshot));
}

}  // namespace ProcMgr::Pmctl
