// pmctl status: what runs and what does not, all of it or one.
#include <ostream>

#include "pmctl/ask.h"
#include "pmctl/find_name.h"
#include "pmctl/health.h"
#include "pmctl/online.h"
#include "pmctl/status_head.h"
#include "pmctl/status_view.h"
#include "pmctl/status_watch.h"
#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {
namespace {

void PrintAll(const Context& context, const Snapshot& snapshot) {
    const size_t width = TerminalColumns();
    for (const std::string& line : FormatHead(snapshot, width, context.hasColours)) {
        context.out << line << '\n';
    }
    for (const std::string& line :
         FormatRows(snapshot, AllOf(snapshot), width, context.hasColours)) {
        context.out << line << '\n';
    }
}

// The answer is yes when something of that name runs.
void ShowOne(Context& context, const std::string& name) {
    const Answer answer = AskStatus(context, name);
    context.exitCode = EXIT_NO;
    for (const Service* service : FindNamed(answer.snapshot, name)) {
        if (IsRunning(HealthOf(answer.snapshot, *service))) {
            context.exitCode = EXIT_OK;
        }
        if (!context.isJson) {
            context.out << FormatDetails(answer.snapshot, *service, TerminalColumns(),
                                         context.hasColours);
        }
    }
    if (context.isJson) {
        PrintDocument(context, answer.text);
    }
}

void ShowAll(const Context& context) {
    const Answer answer = AskStatus(context);
    if (context.isJson) {
        PrintDocument(context, answer.text);
    } else {
        PrintAll(context, answer.snapshot);
    }
}

}  // namespace

void ShowStatus(Context& context, const StatusOptions& options) {
    if (options.isWatch) {
        WatchStatus(context);
    } else if (options.name) {
        ShowOne(context, *options.name);
    } else {
        ShowAll(context);
    }
}

}  // namespace ProcMgr::Pmctl
