// The key "output" of a manifest entry: a word, a path, or a mapping with a path and a size.
#include <algorithm>
#include <array>
#include <climits>
#include <string_view>
#include <utility>

#include "platform/host/diagnostics.h"
#include "platform/host/manifest_keys.h"

namespace PlatformHost {
namespace {

using ProcMgr::OutputConfig;
using ProcMgr::OutputKind;

constexpr int64_t MIN_SIZE = int64_t{4} << 10;
constexpr int64_t MAX_SIZE = int64_t{1} << 30;
// The older file has the path with this end.
constexpr std::string_view OLDER_END = ".1";
constexpr size_t MAX_PATH = PATH_MAX - 1 - OLDER_END.size();

constexpr std::array<std::pair<std::string_view, OutputKind>, 3> WORDS{{
    {"inherit", OutputKind::INHERIT},
    {"null", OutputKind::DISCARD},
    {"syslog", OutputKind::SYSLOG},
}};

bool HasControl(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    });
}

OutputConfig ToOutput(OutputKind kind) {
    OutputConfig output;
    output.kind = kind;
    return output;
}

OutputConfig ToFile(const ManifestValue& value, std::string path) {
    if (!path.starts_with('/') || path.ends_with('/') || path.size() > MAX_PATH ||
        HasControl(path)) {
        value.Fail("expected the absolute path of a file, got " + Quoted(path));
    }
    OutputConfig output = ToOutput(OutputKind::FILE);
    output.file = std::move(path);
    return output;
}

OutputConfig ReadMapping(const ManifestValue& value) {
    static constexpr std::array<std::string_view, 2> MEMBERS{"file", "size"};
    OutputConfig output;
    uint64_t size = output.size;
    for (const YamlChild& member : value.Map()) {
        const ManifestValue part = value.Element(member);
        if (member.key == "file") {
            output = ToFile(part, part.Text());
        } else if (member.key == "size") {
            size = static_cast<uint64_t>(part.Number(MIN_SIZE, MAX_SIZE));
        } else {
            part.WarnUnknown(MEMBERS);
        }
    }
    if (output.kind != OutputKind::FILE) {
        value.Fail("expected a mapping with 'file'");
    }
    output.size = size;
    return output;
}

OutputConfig ReadWord(const ManifestValue& value, std::string text) {
    if (text.starts_with('/')) {
        return ToFile(value, std::move(text));
    }
    for (const auto& [word, kind] : WORDS) {
        if (text == word) {
            return ToOutput(kind);
        }
    }
    value.Fail("expected inherit, null, syslog, an absolute path or a mapping with 'file', got " +
               Quoted(text));
}

}  // namespace

void ReadOutput(const ManifestValue& value, ManifestData& data) {
    if (value.IsMap()) {
        data.output = ReadMapping(value);
    } else {
        // Without quotes the word null is no text in YAML.
        data.output = ReadWord(value, value.IsNullWord() ? "null" : value.Text());
    }
}

}  // namespace PlatformHost
