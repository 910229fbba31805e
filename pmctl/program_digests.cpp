#include "pmctl/program_digests.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <utility>

#include "app/integrity.h"
#include "platform/host/yaml_file.h"
#include "pmctl/text_file.h"
#include "wire/root_file.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr std::chrono::seconds PATIENCE{60};

}  // namespace

ProgramDigests::ProgramDigests(const Image& image, bool hasOwners) {
    const Image::Walk walk = image.Follow(App::HASH_FILE);
    if (walk.error == ENOENT || walk.error == ENOTDIR) {
        return;
    }
    const PlatformHost::YamlFile file =
        PlatformHost::ReadYamlFile(walk.hostPath, PlatformHost::FileTrust::ANY);
    const bool isFound = walk.error == 0;
    if (!isFound || !file.error.empty()) {
        error_ = isFound ? file.error : "cannot be reached";
    } else if (!hasOwners || !image.IsHere() || Wire::OpenRootFile(walk.hostPath).error.empty()) {
        ReadLines(file.text);
    }
}

void ProgramDigests::ReadLines(const std::string& text) {
    for (const TextLine& line : LinesOf(text)) {
        auto parsed = App::ParseHashLine(std::string(line.text));
        if (parsed && line.text.size() <= App::HASH_LINE_LENGTH) {
            expected_[std::move(parsed->name)] = std::move(parsed->digest);
        }
    }
}

ProgramDigests::Verdict ProgramDigests::Check(const std::string& path, const Image::Walk& walk) {
    const auto expected = expected_.find(std::filesystem::path(path).filename());
    if (expected == expected_.end()) {
        return Verdict::PASSED;
    }
    if (access(walk.hostPath.c_str(), R_OK) != 0) {
        return Verdict::UNKNOWN;
    }
    const auto result = runner_.Run(walk.hostPath, std::chrono::steady_clock::now() + PATIENCE);
    for (pid_t ended = 0; (ended = waitpid(-1, nullptr, WNOHANG)) > 0;) {
        runner_.TakeExit(ended);
    }
    const bool isTaken = result.outcome == App::DigestRunner::Outcome::TAKEN;
    return isTaken && result.digest == expected->second ? Verdict::PASSED : Verdict::WRONG;
}

}  // namespace ProcMgr::Pmctl
