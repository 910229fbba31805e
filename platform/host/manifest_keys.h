// The keys of a manifest entry: one table that says how each key is named, where it is allowed and
// how its value is read. The manifest loader walks it; an offline checker can list it.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/manifest_data.h"
#include "platform/host/yaml_tree.h"

namespace ProcMgr {

// Ends the parse; what() is the whole message.
struct ManifestFault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The value of one key of one file, read with checks. Refers to its arguments; `warnings` collects
// messages that do not end the parse.
class ManifestValue {
public:
    ManifestValue(const std::string& file, const YamlChild& child,
                  std::vector<std::string>& warnings);

    // Each throws ManifestFault when the value is not of that kind or out of range.
    std::string Text() const;
    std::string NonEmptyText() const;
    bool Bool() const;
    int64_t Number(int64_t lowest, int64_t highest) const;
    std::map<std::string, std::string> TextMap() const;
    std::span<const YamlChild> List() const;
    std::span<const YamlChild> Map() const;

    // Text that serves as the name of an application or service.
    std::string Name() const;
    // Text that may be a pattern, and then has to be a usable one.
    std::string TextOrPattern() const;

    // An element of this value, which reports errors under this value's key.
    ManifestValue Element(const YamlChild& element) const;

    [[noreturn]] void Fail(const std::string& problem) const;
    void Warn(const std::string& problem) const;

private:
    int64_t ParsedNumber() const;

    const std::string& file_;
    const YamlChild& child_;
    std::vector<std::string>& warnings_;
    std::string key_;
    std::string element_;  // "element 'x': " inside a list or map, else empty
    uint32_t line_;
};

struct ManifestKey {
    std::string_view name;
    bool applicationsOnly;
    void (*read)(const ManifestValue& value, ManifestData& data);
};

// Every key of an entry.
std::span<const ManifestKey> ManifestKeys();

// Null when `name` is no key of an entry of `list`.
const ManifestKey* FindManifestKey(std::string_view name, ManifestList list);

// "FILE:LINE: key 'KEY': PROBLEM", the form of every message about a manifest file.
std::string ManifestMessage(const std::string& file, uint32_t line, std::string_view key,
                            const std::string& problem);

}  // namespace ProcMgr
