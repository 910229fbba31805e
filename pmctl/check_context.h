// What all checks share: where findings go, and the board that the files are for.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/host/manifest_loader.h"
#include "platform/manifest.h"
#include "pmctl/board_users.h"
#include "pmctl/finding.h"
#include "pmctl/image.h"
#include "pmctl/program_digests.h"

namespace ProcMgr::Pmctl {

struct CheckContext {
    Findings& findings;
    const Image& image;
    BoardUsers& users;
    ProgramDigests& digests;
    // Owners and modes of the files count: they lie where the daemon reads them.
    bool hasOwners = true;
    // Whether a note that is for the whole machine has been added; each is added once.
    bool hasGroupNote = false;
    bool hasCoreNote = false;
    bool hasUserNote = false;
    bool hasDigestNote = false;
    // Whether hints name the nearest name that is known.
    bool wantsNearNames = true;

    // Whether a hint that takes long to find is still looked for: a file may have many errors.
    bool MayLookForHint() const {
        constexpr size_t FINDINGS_WITH_HINTS = 100;
        return wantsNearNames && findings.Get().size() < FINDINGS_WITH_HINTS;
    }
};

// One entry of a manifest file with its place, and the list of the findings about it.
struct CheckedEntry {
    CheckContext& context;
    const ApplicationManifest& manifest;
    const PlatformHost::ManifestEntryPlace& place;

    bool IsService() const { return manifest.GetManifestList() == ManifestList::SERVICES; }
    bool Has(std::string_view key) const { return place.lineOfKey.contains(key); }

    // A finding at the key, or at the entry when the key is not written.
    void Error(const std::string& key, const std::string& what,
               const std::string& hint = {}) const {
        Add(Severity::ERROR, key, what, hint);
    }
    void Warn(const std::string& key, const std::string& what, const std::string& hint = {}) const {
        Add(Severity::WARNING, key, what, hint);
    }
    void Note(const std::string& key, const std::string& what, const std::string& hint = {}) const {
        Add(Severity::NOTE, key, what, hint);
    }

private:
    void Add(Severity severity, const std::string& key, const std::string& what,
             const std::string& hint) const {
        const auto line = place.lineOfKey.find(key);
        context.findings.Add({severity, context.image.HostPath(manifest.GetCfgPath()),
                              line == place.lineOfKey.end() ? place.line : line->second, key, what,
                              hint});
    }
};

}  // namespace ProcMgr::Pmctl
