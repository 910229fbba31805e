#include "pmctl/start_checks.h"

#include "pmctl/check_context.h"
#include "pmctl/check_entry.h"
#include "pmctl/check_machine.h"
#include "pmctl/check_program.h"

namespace ProcMgr::Pmctl {
namespace {

std::string TextOf(const Finding& finding) {
    return finding.what + (finding.hint.empty() ? "" : " (" + finding.hint + ")");
}

}  // namespace

StartChecks::StartChecks(const Image& image, bool hasOwners)
    : image_(image), hasOwners_(hasOwners), users_(image), digests_(image, hasOwners) {}

std::string StartChecks::WhyRefused(const ApplicationManifest& manifest,
                                    const PlatformHost::ManifestEntryPlace& place) {
    Findings findings;
    CheckContext context{findings, image_, users_, digests_};
    context.hasOwners = hasOwners_;
    context.wantsNearNames = false;
    const CheckedEntry entry{context, manifest, place};
    CheckProgram(entry);
    CheckCores(entry);
    CheckEffects(entry);
    std::string reason;
    for (const Finding& finding : findings.Get()) {
        if (finding.severity == Severity::NOTE) {
            AddNote(TextOf(finding));
        } else if (finding.severity == Severity::ERROR && reason.empty()) {
            reason = TextOf(finding);
        }
    }
    return reason;
}

void StartChecks::AddNote(const std::string& note) {
    if (known_.insert(note).second) {
        notes_.push_back(note);
    }
}

}  // namespace ProcMgr::Pmctl
