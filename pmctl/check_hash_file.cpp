// The check of the hash file, with the daemon's parser of its lines.
#include <algorithm>
#include <map>
#include <string_view>

#include "app/integrity.h"
#include "pmctl/check_texts.h"
#include "pmctl/text_file.h"
#include "wire/root_file.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t DIGEST_LENGTH = 64;

bool IsDigest(std::string_view text) {
    return text.size() == DIGEST_LENGTH &&
           text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

void CheckLine(const TextLine& line, const std::string& path, CheckContext& context,
               std::map<std::string, uint32_t>& lineOf) {
    const auto add = [&](Severity severity, const std::string& key, const std::string& what,
                         const std::string& hint) {
        context.findings.Add({severity, path, line.number, key, what, hint});
    };
    const auto parsed = App::ParseHashLine(std::string(line.text));
    if (line.text.size() > App::HASH_LINE_LENGTH) {
        add(Severity::ERROR, "",
            "the line is longer than " + std::to_string(App::HASH_LINE_LENGTH) + " characters", "");
    } else if (!parsed) {
        add(Severity::ERROR, "", "expected NAME=DIGEST", "there are no comments in this file");
    } else if (!IsDigest(parsed->digest)) {
        add(Severity::ERROR, parsed->name,
            "the digest is not 64 lower-case hexadecimal digits: the daemon does not start the "
            "program",
            "sha256sum prints it");
    } else if (parsed->name.find_first_of("/ \t") != std::string::npos) {
        add(Severity::WARNING, parsed->name, "no program has this file name",
            "the name is that of the file, without its directory");
    } else if (!lineOf.try_emplace(parsed->name, line.number).second) {
        add(Severity::WARNING, parsed->name,
            "replaces the digest of line " + std::to_string(lineOf.at(parsed->name)), "");
    }
}

}  // namespace

void CheckHashFile(const std::string& path, CheckContext& context) {
    std::string text;
    if (!ReadTextFile(path, context, text)) {
        return;
    }
    if (context.hasOwners && context.image.IsHere()) {
        const std::string refusal = Wire::OpenRootFile(path).error;
        if (!refusal.empty()) {
            context.findings.Add({Severity::ERROR,
                                  path,
                                  0,
                                  {},
                                  refusal + ", so it protects no program",
                                  "--no-owner if it is a copy"});
        }
    }
    std::map<std::string, uint32_t> lineOf;
    for (const TextLine& line : LinesOf(text)) {
        if (!line.text.empty()) {
            CheckLine(line, path, context, lineOf);
        }
    }
}

}  // namespace ProcMgr::Pmctl
