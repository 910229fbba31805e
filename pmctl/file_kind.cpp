#include "pmctl/file_kind.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <system_error>
#include <utility>

#include "config/settings_keys.h"
#include "platform/host/yaml_file.h"
#include "platform/host/yaml_tree.h"
#include "pmctl/text_file.h"

namespace ProcMgr::Pmctl {
namespace {

namespace fs = std::filesystem;

constexpr size_t FILES_MAX = 10000;
constexpr int DEPTH_MAX = 16;
constexpr size_t ENTRIES_MAX = 200000;  // directory entries that are looked at
constexpr std::string_view HASH_FILE_NAME = "bin_hash.cfg";
constexpr size_t DIGEST_LENGTH_MIN = 32;

struct NamedKind {
    std::string_view name;
    FileKind kind;
};
constexpr std::array WORDS = {
    NamedKind{"manifest", FileKind::MANIFEST}, NamedKind{"settings", FileKind::SETTINGS},
    NamedKind{"env", FileKind::HOST_RESOURCES}, NamedKind{"hash", FileKind::HASHES}};
constexpr std::array NAMES = {NamedKind{"procmgr_cfg.yaml", FileKind::SETTINGS},
                              NamedKind{"env.cfg", FileKind::HOST_RESOURCES},
                              NamedKind{HASH_FILE_NAME, FileKind::HASHES}};

template <typename Table>
std::optional<FileKind> Find(const Table& table, std::string_view name) {
    const auto found = std::find_if(table.begin(), table.end(),
                                    [name](const NamedKind& row) { return row.name == name; });
    return found == table.end() ? std::nullopt : std::optional(found->kind);
}

bool HasYamlName(const fs::path& path) {
    return path.extension() == ".yaml" || path.extension() == ".yml";
}

bool IsWanted(const fs::path& path) {
    return HasYamlName(path) || path.extension() == ".cfg" || path.filename() == HASH_FILE_NAME;
}

bool MayRead(const fs::path& folder) {
    return access(folder.c_str(), R_OK | X_OK) == 0;
}

// A file of YAML is one of settings when it has a section of them at its top.
FileKind KindOfYaml(const std::string& text) {
    PlatformHost::YamlError error;
    const PlatformHost::YamlNodePtr root = PlatformHost::ParseYamlText(text, error);
    const auto keys = SettingKeys();
    const bool isSettings =
        root != nullptr && std::any_of(keys.begin(), keys.end(), [&root](const SettingKey& key) {
            return root->Find(key.section) != nullptr;
        });
    return isSettings ? FileKind::SETTINGS : FileKind::MANIFEST;
}

// By the first line KEY=VALUE, if there is one before anything that looks like YAML.
std::optional<FileKind> KindOfLines(const std::string& text) {
    for (const TextLine& line : LinesOf(text)) {
        const size_t equals = line.text.find('=');
        if (line.text.empty() || line.text.front() == '#') {
            continue;
        }
        if (equals == std::string_view::npos || equals == 0 ||
            line.text.substr(0, equals).find_first_of(": \t") != std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view value = line.text.substr(equals + 1);
        const bool isDigest = value.size() >= DIGEST_LENGTH_MIN &&
                              value.find_first_not_of("0123456789abcdefABCDEF") == value.npos;
        return isDigest ? FileKind::HASHES : FileKind::HOST_RESOURCES;
    }
    return std::nullopt;
}

}  // namespace

std::optional<FileKind> FileKindOf(std::string_view word) {
    return Find(WORDS, word);
}

FileKind RecogniseFile(const std::string& path) {
    const fs::path name = fs::path(path).filename();
    if (const auto known = Find(NAMES, name.string())) {
        return *known;
    }
    const PlatformHost::YamlFile file =
        PlatformHost::ReadYamlFile(path, PlatformHost::FileTrust::ANY);
    const auto byLines = HasYamlName(name) ? std::nullopt : KindOfLines(file.text);
    return byLines ? *byLines : KindOfYaml(file.text);
}

FileList ListFiles(const std::string& path) {
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        return {{path}, {}, false};
    }
    FileList list;
    if (!MayRead(path)) {
        list.closed.push_back(path);
    }
    size_t seen = 0;
    fs::recursive_directory_iterator entry(path, fs::directory_options::skip_permission_denied,
                                           error);
    while (!error && entry != fs::recursive_directory_iterator()) {
        if (++seen > ENTRIES_MAX || list.paths.size() >= FILES_MAX) {
            list.isCut = true;
            break;
        }
        std::error_code ignored;
        const bool isFolder = entry->is_directory(ignored);
        if (!isFolder && IsWanted(entry->path())) {
            list.paths.push_back(entry->path());
        } else if (isFolder && !entry->is_symlink(ignored) && !MayRead(entry->path())) {
            list.closed.push_back(entry->path());
        } else if (isFolder && entry.depth() >= DEPTH_MAX) {
            entry.disable_recursion_pending();
            list.isCut = true;
        }
        entry.increment(error);
    }
    std::sort(list.paths.begin(), list.paths.end());
    return list;
}

}  // namespace ProcMgr::Pmctl
