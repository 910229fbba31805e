// The check of the host resource file env.cfg, with the daemon's parser of its lines.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

#include "main/common/numbers.h"
#include "pmctl/check_texts.h"
#include "pmctl/near_word.h"
#include "pmctl/text_file.h"
#include "resource/cgroup_paths.h"
#include "resource/host_resource_file.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr const char* FORM = "a set is written group:percent;group:percent";
constexpr int32_t PERCENT_MAX = 100;

class HostResourceCheck {
public:
    HostResourceCheck(const std::string& path, CheckContext& context)
        : path_(path), context_(context) {}

    // False when the daemon reads no further.
    bool Take(const TextLine& line) {
        number_ = line.number;
        if (line.text.size() > HOST_RESOURCE_LINE_MAX) {
            Add(Severity::ERROR, "",
                "the line is longer than " + std::to_string(HOST_RESOURCE_LINE_MAX) +
                    " characters: the daemon uses neither it nor what follows",
                "");
            return false;
        }
        const HostResourceLine parsed = ParseHostResourceLine(line.text);
        if (parsed.kind == HostResourceLine::Kind::SKIPPED) {
            TakeSkipped(line.text);
        } else if (!seen_.insert(parsed.key).second) {
            Add(Severity::WARNING, parsed.key, "is given twice", "the later line counts");
        }
        if (parsed.kind == HostResourceLine::Kind::SWITCH && parsed.value != "0" &&
            parsed.value != "1") {
            Add(Severity::WARNING, parsed.key, "expected 0 or 1", "the daemon takes it for 1");
        } else if (parsed.kind == HostResourceLine::Kind::SET) {
            TakeSet(parsed);
        }
        return true;
    }

private:
    void Add(Severity severity, const std::string& key, const std::string& what,
             const std::string& hint) {
        context_.findings.Add({severity, path_, number_, key, what, hint});
    }

    // A line that is meant as KEY=VALUE and that the daemon takes for a comment.
    void TakeSkipped(std::string_view line) {
        const size_t begin = std::min(line.find_first_not_of(" \t"), line.size());
        if (begin == line.size() || line[begin] == '#') {
            return;
        }
        const auto bad = std::find_if_not(line.begin(), line.end(), IsHostResourceCharacter);
        if (bad == line.end()) {
            Add(Severity::WARNING, "", "the line is not KEY=VALUE and is skipped", "");
        } else {
            Add(Severity::WARNING, "",
                std::string("the line is skipped, because it holds the character '") + *bad + "'",
                "only letters, digits and :=;_'\"/ may be in a line, no blanks");
        }
    }

    void TakeSet(const HostResourceLine& line) {
        if (line.key != HOST_CPU_SET) {
            static constexpr std::array<std::string_view, 2> KNOWN{HOST_CPU_SET, HOST_CPU_SWITCH};
            const std::string meant = DidYouMean(line.key, KNOWN);
            if (!meant.empty()) {
                Add(Severity::WARNING, line.key, "the daemon never applies this set by itself",
                    meant);
            }
        }
        std::set<std::string> groups;
        const bool isRead = ParseCgroupSet(line.value, [&](const CgroupSetEntry& entry) {
            return TakeGroup(line.key, entry, groups);
        });
        if (isRead && groups.empty()) {
            Add(Severity::WARNING, line.key, "the set has no group", FORM);
        }
    }

    bool TakeGroup(const std::string& set, const CgroupSetEntry& entry,
                   std::set<std::string>& groups) {
        if (entry.fault != CgroupSetEntry::Fault::NONE) {
            const bool isEmpty = entry.fault == CgroupSetEntry::Fault::EMPTY;
            Add(Severity::ERROR, set,
                isEmpty
                    ? "the group '" + entry.group + "' or its value '" + entry.value + "' is empty"
                    : "'" + entry.value + "' of the group '" + entry.group + "' is not a number",
                isEmpty ? std::string(FORM) + ", without a ';' at the end"
                        : "the daemon does not read the lines after it");
            return false;
        }
        CheckNumber(set, entry);
        if (!groups.insert(entry.group).second) {
            Add(Severity::WARNING, set, "the group '" + entry.group + "' has two values",
                "a value without a group of its own counts for the group before it");
        }
        CheckGroup(set, entry.group);
        return true;
    }

    void CheckNumber(const std::string& set, const CgroupSetEntry& entry) {
        if (!ParseNumber<int32_t>(entry.value)) {
            Add(Severity::WARNING, set,
                "'" + entry.value + "' of the group '" + entry.group + "' counts as " +
                    std::to_string(entry.percentage),
                "");
        } else if (entry.percentage <= 0 || entry.percentage > PERCENT_MAX) {
            Add(Severity::WARNING, set,
                "the share of the group '" + entry.group + "' is not from 1 to 100 percent", "");
        }
    }

    void CheckGroup(const std::string& set, const std::string& group) {
        if (!context_.image.IsHere() || access(CGROUP_CPU_ROOT, F_OK) != 0) {
            if (!context_.hasGroupNote) {
                Add(Severity::NOTE, set,
                    "control groups are not checked: this machine does not have the board's "
                    "control groups",
                    "");
                context_.hasGroupNote = true;
            }
        } else if (access((CGROUP_CPU_ROOT + group).c_str(), F_OK) != 0) {
            Add(Severity::WARNING, set, "there is no control group " + (CGROUP_CPU_ROOT + group),
                "");
        }
    }

    const std::string& path_;
    CheckContext& context_;
    uint32_t number_ = 0;
    std::set<std::string> seen_;  // keys
};

}  // namespace

void CheckHostResources(const std::string& path, CheckContext& context) {
    std::string text;
    if (!ReadTextFile(path, context, text)) {
        return;
    }
    HostResourceCheck check(path, context);
    const std::vector<TextLine> lines = LinesOf(text);
    std::all_of(lines.begin(), lines.end(),
                [&check](const TextLine& line) { return check.Take(line); });
}

}  // namespace ProcMgr::Pmctl
