#include "platform/host/manifest_loader.h"

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <memory_resource>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/host/diagnostics.h"
#include "platform/host/manifest_data.h"
#include "platform/host/manifest_keys.h"
#include "platform/host/primary_group.h"

namespace PlatformHost {
namespace {

constexpr size_t MAX_INCLUDE_DEPTH = 16;
constexpr std::string_view INCLUDE = "include";
constexpr std::string_view SERVICES = "services";
constexpr std::string_view APPLICATIONS = "applications";
constexpr std::array TOP_KEYS{INCLUDE, SERVICES, APPLICATIONS};

std::vector<std::string_view> MakeKeys(ManifestList list) {
    std::vector<std::string_view> keys;
    for (const ManifestKey& key : ManifestKeys()) {
        if (FindManifestKey(key.name, list) != nullptr) {
            keys.push_back(key.name);
        }
    }
    return keys;
}

std::span<const std::string_view> KeysOf(ManifestList list) {
    static const std::vector<std::string_view> SERVICE_KEYS = MakeKeys(ManifestList::SERVICES);
    static const std::vector<std::string_view> ALL_KEYS = MakeKeys(ManifestList::APPLICATIONS);
    return list == ManifestList::SERVICES ? SERVICE_KEYS : ALL_KEYS;
}

class Loader {
public:
    // With `check`, faults are stored there and the load goes on.
    Loader(const ManifestReader& reader, ManifestLoad& load, ManifestCheck* check = nullptr)
        : reader_(reader), load_(load), check_(check) {}

    void LoadFirst(const std::string& path) {
        Try([&] {
            LoadFile(path, [&](const std::string& problem) {
                return ManifestProblem{path, 0, {}, problem, ManifestProblem::Place::FILE};
            });
        });
    }

private:
    struct Entry {
        const std::string& path;
        uint32_t line;
    };

    // The file that is being read, for the lifetime of the object.
    struct Reading {
        Reading(std::vector<std::string>& paths, const std::string& path) : reading(paths) {
            reading.push_back(path);
        }
        ~Reading() { reading.pop_back(); }
        Reading(const Reading&) = delete;
        Reading& operator=(const Reading&) = delete;
        std::vector<std::string>& reading;
    };

    // Runs one step. False after a fault that has been stored; other faults are passed on.
    template <typename Step>
    bool Try(Step step) {
        try {
            step();
            return true;
        } catch (const ManifestFault& fault) {
            if (check_ == nullptr || check_->errors.size() >= MAX_MANIFEST_ERRORS) {
                throw;
            }
            check_->errors.push_back(fault.problem);
            return false;
        }
    }

    // `problemOf` gives an unreadable file its place: the line of the include.
    template <typename ProblemOf>
    void LoadFile(const std::string& path, ProblemOf problemOf) {
        const YamlFile file = reader_(path);
        if (!file.error.empty()) {
            throw ManifestFault(problemOf(file.error));
        }
        if (std::find(reading_.begin(), reading_.end(), file.realPath) != reading_.end()) {
            throw ManifestFault(problemOf("the file includes itself"));
        }
        if (!load_.files.insert(file.realPath).second) {
            return;
        }
        YamlError error;
        const YamlNodePtr root = ParseYamlText(file.text, error);
        if (root == nullptr) {
            const auto place = error.nearKey.empty() ? ManifestProblem::Place::LINE
                                                     : ManifestProblem::Place::NEAR_KEY;
            throw ManifestFault({path, error.line, error.nearKey, error.text, place});
        }
        const Reading reading(reading_, file.realPath);
        LoadRoot(path, *root);
    }

    void LoadRoot(const std::string& path, const YamlNode& root) {
        if (root.kind == YamlKind::NOTHING) {
            return;  // an empty file, or comments only
        }
        if (root.kind != YamlKind::MAP) {
            throw ManifestFault({path,
                                 root.line,
                                 {},
                                 "expected a mapping with 'include', 'services' or "
                                 "'applications' at the top of the file",
                                 ManifestProblem::Place::LINE});
        }
        // Includes come first, wherever in the file their key is.
        for (const YamlChild& child : root.children) {
            if (child.key == INCLUDE) {
                Try([&] { LoadIncludes(path, ManifestValue(path, child, load_.warnings)); });
            }
        }
        for (const YamlChild& child : root.children) {
            const ManifestValue value(path, child, load_.warnings);
            if (child.key == SERVICES) {
                Try([&] { LoadEntries(path, value, ManifestList::SERVICES); });
            } else if (child.key == APPLICATIONS) {
                Try([&] { LoadEntries(path, value, ManifestList::APPLICATIONS); });
            } else if (child.key != INCLUDE) {
                value.WarnUnknown(TOP_KEYS);
            }
        }
    }

    void LoadIncludes(const std::string& path, const ManifestValue& value) {
        for (const YamlChild& element : value.List()) {
            Try([&] { LoadInclude(path, value.Element(element), element.line); });
        }
    }

    void LoadInclude(const std::string& path, const ManifestValue& include, uint32_t line) {
        const std::filesystem::path target = include.NonEmptyText();
        if (reading_.size() >= MAX_INCLUDE_DEPTH) {
            include.Fail("includes nested more than " + std::to_string(MAX_INCLUDE_DEPTH) +
                         " deep");
        }
        // The operator drops the directory when `target` is absolute.
        const std::string full = (std::filesystem::path(path).parent_path() / target).string();
        LoadFile(full, [&](const std::string& problem) {
            return ManifestProblem{path, line, std::string(INCLUDE), full + ": " + problem};
        });
    }

    void LoadEntries(const std::string& path, const ManifestValue& value, ManifestList list) {
        for (const YamlChild& element : value.List()) {
            Try([&] {
                const ManifestValue entry = value.Element(element);
                LoadEntry(path, element.line, entry.Map(), list);
            });
        }
    }

    void LoadEntry(const std::string& path, uint32_t line, std::span<const YamlChild> children,
                   ManifestList list) {
        auto data = std::make_shared<ManifestData>();
        data->list = list;
        data->cfgPath = path;
        // The keys that are written, so that one with an error does not count as missing.
        bool hasName = false;
        bool hasBin = false;
        bool hasGid = false;
        for (const YamlChild& child : children) {
            hasName = hasName || child.key == "name";
            hasBin = hasBin || child.key == "bin";
            hasGid = hasGid || child.key == "gid";
            Try([&] { LoadKey(path, child, *data); });
        }
        if (!hasName) {
            throw ManifestFault({path, line, "name", "missing"});
        }
        if (data->name.empty()) {
            return;
        }
        if (!hasBin) {
            Try([&] {
                throw ManifestFault(
                    {path, line, "bin", "missing in the entry " + Quoted(data->name)});
            });
        }
        RefuseRepeatedName(*data, line);
        if (!hasGid) {
            Try([&] { data->gid = GroupOf(path, line, data->uid); });
        }
        if (check_ != nullptr) {
            check_->places.push_back(PlaceOf(line, children));
        }
        load_.manifests.emplace_back(std::move(data));
    }

    void LoadKey(const std::string& path, const YamlChild& child, ManifestData& data) {
        const ManifestValue value(path, child, load_.warnings);
        const ManifestKey* key = FindManifestKey(child.key, data.list);
        if (key != nullptr) {
            key->read(value, data);
        } else if (FindManifestKey(child.key, ManifestList::APPLICATIONS) != nullptr) {
            value.Warn("not a key of a service, ignored");
        } else {
            value.WarnUnknown(KeysOf(data.list));
        }
    }

    static ManifestEntryPlace PlaceOf(uint32_t line, std::span<const YamlChild> children) {
        ManifestEntryPlace place{line, {}};
        for (const YamlChild& child : children) {
            place.lineOfKey.emplace(child.key, child.line);
        }
        return place;
    }

    uint32_t GroupOf(const std::string& path, uint32_t line, uint32_t uid) {
        const auto known = load_.groupOfUser.find(uid);
        if (known != load_.groupOfUser.end()) {
            return known->second;
        }
        const std::optional<uint32_t> group = PrimaryGroup(uid);
        if (!group) {
            throw ManifestFault({path, line, "gid",
                                 "not given, and the user database with the group of uid " +
                                     std::to_string(uid) + " cannot be read"});
        }
        return load_.groupOfUser[uid] = *group;
    }

    void RefuseRepeatedName(const ManifestData& data, uint32_t line) {
        const auto [found, isNew] = entryOfName_.try_emplace(data.name, Entry{data.cfgPath, line});
        if (!isNew) {
            const Entry& first = found->second;
            throw ManifestFault({data.cfgPath, line, "name",
                                 Quoted(data.name) + " is also the name of the entry at " +
                                     first.path + ":" + std::to_string(first.line)});
        }
    }

    const ManifestReader& reader_;
    ManifestLoad& load_;
    ManifestCheck* const check_;
    std::vector<std::string> reading_;  // real paths, from the first file to the current one
    // Apart from the heap, where the nodes would leave a hole beside each manifest, and the small
    // blocks of the records in these holes would keep the pages of the manifests for good.
    std::pmr::monotonic_buffer_resource memory_;
    // Refers to the manifests.
    std::pmr::unordered_map<std::string_view, Entry> entryOfName_{&memory_};
};

}  // namespace

ManifestLoad LoadManifests(const std::string& path, const ManifestReader& reader) {
    ManifestLoad load;
    try {
        Loader(reader, load).LoadFirst(path);
    } catch (const std::exception& failure) {
        load.error = failure.what();
    }
    return load;
}

ManifestCheck CheckManifests(const std::string& path, const ManifestReader& reader) {
    ManifestCheck check;
    try {
        Loader(reader, check.load, &check).LoadFirst(path);
    } catch (const std::exception& failure) {
        check.load.error = failure.what();
    }
    return check;
}

std::span<const std::string_view> ManifestTopKeys() {
    return TOP_KEYS;
}

bool HasSameGroups(const ManifestLoad& load) {
    return std::all_of(load.groupOfUser.begin(), load.groupOfUser.end(),
                       [](const auto& user) { return PrimaryGroup(user.first) == user.second; });
}

}  // namespace PlatformHost
