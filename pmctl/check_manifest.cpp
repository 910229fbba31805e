#include "pmctl/check_manifest.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "pmctl/check_dependencies.h"
#include "pmctl/check_entry.h"
#include "pmctl/check_machine.h"
#include "pmctl/check_program.h"
#include "pmctl/near_word.h"
#include "wire/root_file.h"

namespace ProcMgr::Pmctl {
namespace {

using PlatformHost::ManifestProblem;

void AddProblem(const ManifestProblem& problem, Severity severity, CheckContext& context) {
    const std::string key = problem.place == ManifestProblem::Place::NEAR_KEY
                                ? "near key '" + problem.key + "'"
                                : problem.key;
    context.findings.Add({severity, context.image.HostPath(problem.file), problem.line, key,
                          problem.what, DidYouMean(problem.key, problem.known)});
}

// A file that others may write is refused by the daemon, and read here all the same.
void CheckOwners(const std::set<std::string>& files, CheckContext& context) {
    for (const std::string& file : files) {
        const std::string refusal = Wire::OpenRootFile(file).error;
        if (!refusal.empty()) {
            context.findings.Add({Severity::ERROR,
                                  file,
                                  0,
                                  {},
                                  refusal,
                                  "the daemon does not read it; --no-owner if it is a copy"});
        }
    }
}

// Whether an error has kept an entry out of the list of the manifests.
bool HidesEntries(const ManifestProblem& error) {
    return error.place != ManifestProblem::Place::KEY || error.key == "include" ||
           error.key == "name" || error.key == "services" || error.key == "applications";
}

void CheckEntries(const PlatformHost::ManifestCheck& check, CheckContext& context) {
    std::vector<CheckedEntry> entries;
    for (size_t i = 0; i < check.load.manifests.size(); ++i) {
        entries.push_back({context, check.load.manifests[i], check.places[i]});
    }
    for (const CheckedEntry& entry : entries) {
        CheckProgram(entry);
        CheckCores(entry);
        CheckControlGroups(entry);
        CheckEffects(entry);
    }
    CheckDependencies(entries,
                      check.load.error.empty() &&
                          std::none_of(check.errors.begin(), check.errors.end(), HidesEntries));
}

}  // namespace

std::string RealPathOf(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> resolved(realpath(path.c_str(), nullptr), free);
    return resolved == nullptr ? path : resolved.get();
}

PlatformHost::ManifestReader BoardReader(const Image& image, bool hasOwners) {
    return [&image, hasOwners](const std::string& path) {
        const std::string hostPath = image.HostPath(path);
        PlatformHost::YamlFile file =
            PlatformHost::ReadYamlFile(hostPath, hasOwners ? PlatformHost::FileTrust::OWNER_ONLY
                                                           : PlatformHost::FileTrust::ANY);
        file.realPath = RealPathOf(hostPath);
        return file;
    };
}

std::set<std::string> CheckManifest(const std::string& path, CheckContext& context) {
    const PlatformHost::ManifestCheck check =
        PlatformHost::CheckManifests(path, BoardReader(context.image, false));
    for (const ManifestProblem& problem : check.errors) {
        AddProblem(problem, Severity::ERROR, context);
    }
    if (!check.load.error.empty()) {
        context.findings.Add(
            {Severity::ERROR, path, 0, {}, "the check ends here: " + check.load.error, {}});
    }
    for (const ManifestProblem& problem : check.load.warnings) {
        AddProblem(problem, Severity::WARNING, context);
    }
    if (context.hasOwners && context.image.IsHere()) {
        CheckOwners(check.load.files, context);
    }
    CheckEntries(check, context);
    return check.load.files;
}

}  // namespace ProcMgr::Pmctl
