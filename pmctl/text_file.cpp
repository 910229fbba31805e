#include "pmctl/text_file.h"

#include <algorithm>
#include <utility>

#include "platform/host/yaml_file.h"

namespace ProcMgr::Pmctl {

std::vector<TextLine> LinesOf(std::string_view text) {
    std::vector<TextLine> lines;
    uint32_t number = 0;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        while (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        lines.push_back({++number, line});
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

bool ReadTextFile(const std::string& path, CheckContext& context, std::string& text) {
    PlatformHost::YamlFile file = PlatformHost::ReadYamlFile(path, PlatformHost::FileTrust::ANY);
    const size_t nul = file.text.find('\0');
    if (!file.error.empty()) {
        context.findings.Add({Severity::ERROR, path, 0, {}, file.error, {}});
    } else if (nul != std::string::npos) {
        const auto before = std::count(file.text.begin(),
                                       file.text.begin() + static_cast<std::ptrdiff_t>(nul), '\n');
        context.findings.Add({Severity::ERROR,
                              path,
                              static_cast<uint32_t>(before + 1),
                              {},
                              "not a text file: it holds a NUL character",
                              {}});
    } else {
        text = std::move(file.text);
        return true;
    }
    return false;
}

}  // namespace ProcMgr::Pmctl
