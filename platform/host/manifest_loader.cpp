#include "platform/host/manifest_loader.h"

#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <map>
#include <memory_resource>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/host/diagnostics.h"
#include "platform/host/manifest_data.h"
#include "platform/host/manifest_keys.h"

namespace PlatformHost {
namespace {

constexpr size_t MAX_INCLUDE_DEPTH = 16;
constexpr size_t FIRST_USER_RECORD = 1024;
constexpr size_t MAX_USER_RECORD = size_t{1} << 20;

// Returns the primary group of a user, 0 when the user database has no such user, and nothing when
// the database could not be read: the user may be in it, and group 0 would give privileges away.
std::optional<uint32_t> PrimaryGroup(uint32_t uid) {
    std::vector<char> buffer(FIRST_USER_RECORD);
    passwd record{};
    passwd* found = nullptr;
    int result = getpwuid_r(uid, &record, buffer.data(), buffer.size(), &found);
    while ((result == ERANGE && buffer.size() < MAX_USER_RECORD) || result == EINTR) {
        buffer.resize(buffer.size() * 2);
        result = getpwuid_r(uid, &record, buffer.data(), buffer.size(), &found);
    }
    if (result == EIO || result == EMFILE || result == ENFILE || result == ENOMEM ||
        result == ERANGE) {
        return std::nullopt;
    }
    return found == nullptr ? 0 : record.pw_gid;
}

class Loader {
public:
    Loader(const ManifestReader& reader, ManifestLoad& load) : reader_(reader), load_(load) {}

    // `origin` begins the messages about an unreadable file: the position of the include; "" for
    // the first file.
    void LoadFile(const std::string& path, const std::string& origin) {
        const YamlFile file = reader_(path);
        if (!file.error.empty()) {
            throw ManifestFault(origin + path + ": " + file.error);
        }
        if (std::find(reading_.begin(), reading_.end(), file.realPath) != reading_.end()) {
            throw ManifestFault(origin + path + ": the file includes itself");
        }
        if (!load_.files.insert(file.realPath).second) {
            return;
        }
        YamlError error;
        const YamlNodePtr root = ParseYamlText(file.text, error);
        if (root == nullptr) {
            throw ManifestFault(error.Describe(path));
        }
        reading_.push_back(file.realPath);
        LoadRoot(path, *root);
        reading_.pop_back();
    }

private:
    struct Entry {
        const std::string& path;
        uint32_t line;
    };

    void LoadRoot(const std::string& path, const YamlNode& root) {
        if (root.kind == YamlKind::NOTHING) {
            return;  // an empty file, or comments only
        }
        if (root.kind != YamlKind::MAP) {
            throw ManifestFault(path + ":" + std::to_string(root.line) +
                                ": expected a mapping with 'include', 'services' or "
                                "'applications' at the top of the file");
        }
        // Includes come first, wherever in the file their key is.
        for (const YamlChild& child : root.children) {
            if (child.key == "include") {
                LoadIncludes(path, ManifestValue(path, child, load_.warnings));
            }
        }
        for (const YamlChild& child : root.children) {
            const ManifestValue value(path, child, load_.warnings);
            if (child.key == "services") {
                LoadEntries(path, value, ManifestList::SERVICES);
            } else if (child.key == "applications") {
                LoadEntries(path, value, ManifestList::APPLICATIONS);
            } else if (child.key != "include") {
                value.Warn("unknown key, ignored");
            }
        }
    }

    void LoadIncludes(const std::string& path, const ManifestValue& value) {
        for (const YamlChild& element : value.List()) {
            const ManifestValue include = value.Element(element);
            const std::filesystem::path target = include.NonEmptyText();
            if (reading_.size() >= MAX_INCLUDE_DEPTH) {
                include.Fail("includes nested more than " + std::to_string(MAX_INCLUDE_DEPTH) +
                             " deep");
            }
            // The operator drops the directory when `target` is absolute.
            const std::filesystem::path full = std::filesystem::path(path).parent_path() / target;
            LoadFile(full.string(), ManifestMessage(path, element.line, "include", ""));
        }
    }

    void LoadEntries(const std::string& path, const ManifestValue& value, ManifestList list) {
        for (const YamlChild& element : value.List()) {
            const ManifestValue entry = value.Element(element);
            LoadEntry(path, element.line, entry.Map(), list);
        }
    }

    void LoadEntry(const std::string& path, uint32_t line, std::span<const YamlChild> children,
                   ManifestList list) {
        auto data = std::make_shared<ManifestData>();
        data->list = list;
        data->cfgPath = path;
        bool hasGid = false;
        for (const YamlChild& child : children) {
            const ManifestValue value(path, child, load_.warnings);
            hasGid = hasGid || child.key == "gid";
            const ManifestKey* key = FindManifestKey(child.key, list);
            if (key != nullptr) {
                key->read(value, *data);
            } else if (FindManifestKey(child.key, ManifestList::APPLICATIONS) != nullptr) {
                value.Warn("not a key of a service, ignored");
            } else {
                value.Warn("unknown key, ignored");
            }
        }
        if (data->name.empty()) {
            throw ManifestFault(ManifestMessage(path, line, "name", "missing"));
        }
        if (data->bin.empty()) {
            throw ManifestFault(
                ManifestMessage(path, line, "bin", "missing in the entry " + Quoted(data->name)));
        }
        RefuseRepeatedName(*data, line);
        if (!hasGid) {
            data->gid = GroupOf(path, line, data->uid);
        }
        load_.manifests.emplace_back(std::move(data));
    }

    uint32_t GroupOf(const std::string& path, uint32_t line, uint32_t uid) {
        const auto known = load_.groupOfUser.find(uid);
        if (known != load_.groupOfUser.end()) {
            return known->second;
        }
        const std::optional<uint32_t> group = PrimaryGroup(uid);
        if (!group) {
            throw ManifestFault(ManifestMessage(path, line, "gid",
                                                "not given, and the user database with the group "
                                                "of uid " +
                                                    std::to_string(uid) + " cannot be read"));
        }
        return load_.groupOfUser[uid] = *group;
    }

    void RefuseRepeatedName(const ManifestData& data, uint32_t line) {
        const auto [found, isNew] = entryOfName_.try_emplace(data.name, Entry{data.cfgPath, line});
        if (!isNew) {
            const Entry& first = found->second;
            throw ManifestFault(ManifestMessage(data.cfgPath, line, "name",
                                                Quoted(data.name) +
                                                    " is also the name of the entry at " +
                                                    first.path + ":" + std::to_string(first.line)));
        }
    }

    const ManifestReader& reader_;
    ManifestLoad& load_;
    std::vector<std::string> reading_;  // real paths, from the first file to the current one
    // Apart from the heap, where the nodes would leave a hole beside each manifest, and the small
    // blocks of the records in these holes would keep the pages of the manifests for good.
    std::pmr::monotonic_buffer_resource memory_;
    std::pmr::map<std::string_view, Entry> entryOfName_{&memory_};  // refers to the manifests
};

}  // namespace

ManifestLoad LoadManifests(const std::string& path, const ManifestReader& reader) {
    ManifestLoad load;
    try {
        Loader(reader, load).LoadFile(path, "");
    } catch (const std::exception& failure) {
        load.error = failure.what();
    }
    return load;
}

bool HasSameGroups(const ManifestLoad& load) {
    return std::all_of(load.groupOfUser.begin(), load.groupOfUser.end(),
                       [](const auto& user) { return PrimaryGroup(user.first) == user.second; });
}

}  // namespace PlatformHost
