// pmctl check: finds what is wrong in files before a boot.
#include <ostream>

#include "main/common/log.h"
#include "pmctl/check_files.h"
#include "pmctl/offline.h"
#include "pmctl/offline_json.h"

namespace ProcMgr::Pmctl {
namespace {

std::string Counted(size_t number, const char* noun) {
    return std::to_string(number) + ' ' + noun + (number == 1 ? "" : "s");
}

void WriteText(const Findings& findings, size_t files, const Context& context) {
    for (const Finding& finding : findings.Get()) {
        context.out << finding.Text(context.hasColours) << '\n';
    }
    if (findings.GetLeftOut() > 0) {
        context.out << Counted(findings.GetLeftOut(), "more finding") << " not shown\n";
    }
    context.out << Counted(files, "file")
                << " checked: " << Counted(findings.Count(Severity::ERROR), "error") << ", "
                << Counted(findings.Count(Severity::WARNING), "warning") << ", "
                << Counted(findings.Count(Severity::NOTE), "note") << '\n';
}

}  // namespace

void RunCheck(const CheckOptions& options, Context& context) {
    SwitchLogOff();
    const Image image(options.root);
    BoardUsers users(image);
    Findings findings;
    ProgramDigests digests(image, !options.isCopy);
    CheckContext check{findings, image, users, digests};
    check.hasOwners = !options.isCopy;
    const auto kind = options.kind.empty() ? std::nullopt : FileKindOf(options.kind);
    const size_t files = CheckFiles(options.files, kind, check);
    if (context.isJson) {
        context.out << FindingsJson(findings);
    } else {
        WriteText(findings, files, context);
    }
    const bool hasErrors = findings.Count(Severity::ERROR) > 0;
    const bool hasWarnings = findings.Count(Severity::WARNING) > 0;
    context.exitCode = hasErrors || (options.isStrict && hasWarnings) ? EXIT_NO : EXIT_OK;
}

}  // namespace ProcMgr::Pmctl
