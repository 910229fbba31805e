// The keys of a manifest entry: one table with the name of each key, the lists where it is allowed
// and the function that reads its value. The manifest loader looks keys up in this table.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/manifest_data.h"
#include "platform/host/manifest_problem.h"
#include "platform/host/yaml_tree.h"

namespace PlatformHost {

using ProcMgr::ManifestData;
using ProcMgr::ManifestList;

// The value of one key of one file, read with checks. Keeps references to the arguments of its
// constructor; `warnings` collects messages that do not end the parse.
class ManifestValue {
public:
    ManifestValue(const std::string& file, const YamlChild& child,
                  std::vector<ManifestProblem>& warnings);

    // Each throws ManifestFault when the value is not of that kind or out of range.
    std::string Text() const;
    std::string NonEmptyText() const;
    bool Bool() const;
    int64_t Number(int64_t lowest, int64_t highest) const;
    std::map<std::string, std::string> TextMap() const;
    std::span<const YamlChild> List() const;
    std::span<const YamlChild> Map() const;

    // Text that is valid as the name of an application or service.
    std::string Name() const;
    bool IsMap() const { return child_.node->kind == YamlKind::MAP; }
    // Whether the value is the word of YAML for nothing, written out: null.
    bool IsNullWord() const;

    // Text; a pattern has to be usable.
    std::string TextOrPattern() const;

    // An element of this list or map, as a value that reports errors under this value's key. Must
    // not outlive this value.
    ManifestValue Element(const YamlChild& element) const;

    [[noreturn]] void Fail(const std::string& problem) const;
    void Warn(const std::string& problem) const;
    // The warning about a key that is none of `known`, which lives as long as the program.
    void WarnUnknown(std::span<const std::string_view> known) const;

private:
    int64_t ParsedNumber() const;
    // "element 'x': PROBLEM" inside a list or map, else only the problem.
    ManifestProblem Problem(const std::string& problem) const;
    std::string ElementText() const;
    std::string_view Key() const { return list_ == nullptr ? child_.key : list_->Key(); }

    const std::string& file_;
    const YamlChild& child_;
    std::vector<ManifestProblem>& warnings_;
    const ManifestValue* list_ = nullptr;  // the list or map that this value is an element of
};

struct ManifestKey {
    std::string_view name;
    bool applicationsOnly;
    void (*read)(const ManifestValue& value, ManifestData& data);
};

// The reader of the key "output".
void ReadOutput(const ManifestValue& value, ManifestData& data);

// Every key of an entry.
std::span<const ManifestKey> ManifestKeys();

// Returns null when `name` is no key of an entry of `list`.
const ManifestKey* FindManifestKey(std::string_view name, ManifestList list);

}  // namespace PlatformHost
