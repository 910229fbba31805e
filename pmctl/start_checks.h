// Why the daemon would not start a program of a manifest when it has its turn: the findings of
// "pmctl check" that keep a program from running, as one reason.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "platform/host/manifest_loader.h"
#include "platform/manifest.h"
#include "pmctl/board_users.h"
#include "pmctl/image.h"
#include "pmctl/program_digests.h"

namespace ProcMgr::Pmctl {

class StartChecks {
public:
    // `hasOwners`: as in CheckContext. The image must outlive the object.
    StartChecks(const Image& image, bool hasOwners);

    // Empty when the program can be started.
    std::string WhyRefused(const ApplicationManifest& manifest,
                           const PlatformHost::ManifestEntryPlace& place);

    // What could not be checked, each once.
    const std::vector<std::string>& GetNotes() const { return notes_; }

private:
    void AddNote(const std::string& note);

    const Image& image_;
    const bool hasOwners_;
    BoardUsers users_;
    ProgramDigests digests_;
    std::vector<std::string> notes_;
    std::set<std::string> known_;  // the same notes
};

}  // namespace ProcMgr::Pmctl
