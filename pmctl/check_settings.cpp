// The check of the settings file, by the daemon's table of its keys.
#include <algorithm>
#include <set>
#include <string_view>
#include <vector>

#include "config/settings_keys.h"
#include "platform/host/yaml_tree.h"
#include "pmctl/check_texts.h"
#include "pmctl/near_word.h"
#include "pmctl/text_file.h"

namespace ProcMgr::Pmctl {
namespace {

using PlatformHost::YamlChild;
using PlatformHost::YamlKind;
using PlatformHost::YamlNode;

struct SettingsFile {
    const std::string& path;
    CheckContext& context;

    void Add(Severity severity, const YamlChild& child, const std::string& key,
             const std::string& what, const std::string& hint) const {
        context.findings.Add({severity, path, child.line, key, what, hint});
    }
};

const char* ExpectedValue(SettingKind kind) {
    switch (kind) {
        case SettingKind::SWITCH:
            return "expected true or false";
        case SettingKind::SECONDS:
            return "expected seconds in digits";
        case SettingKind::ACTION:
            return "expected 0, 1 or 2";
        case SettingKind::GROUP:
            return "expected the name of a group";
    }
    return "";
}

bool IsValue(SettingKind kind, const YamlNode& node) {
    const std::string text(node.text);
    const bool isSwitch = kind == SettingKind::SWITCH;
    return node.kind == YamlKind::TEXT &&
           (isSwitch ? PlatformHost::ParseYamlBool(text).has_value() : IsSettingValue(kind, text));
}

std::vector<std::string_view> SectionNames() {
    std::set<std::string_view> names;
    for (const SettingKey& key : SettingKeys()) {
        names.insert(key.section);
    }
    return {names.begin(), names.end()};
}

std::vector<std::string_view> NamesIn(std::string_view section) {
    std::vector<std::string_view> names;
    for (const SettingKey& key : SettingKeys()) {
        if (key.section == section) {
            names.emplace_back(key.name);
        }
    }
    return names;
}

// The daemon lets in nobody but root when the group is unknown.
void CheckGroup(const SettingsFile& file, const YamlChild& child, const std::string& key) {
    BoardUsers& users = file.context.users;
    const std::string name(child.node->text);
    if (!users.IsKnown()) {
        file.Add(Severity::NOTE, child, key,
                 "groups are not checked: the image has no /etc/passwd and /etc/group that can be "
                 "read",
                 "");
    } else if (!users.HasGroupNamed(name)) {
        const std::vector<std::string> names = users.GroupNames();
        const std::vector<std::string_view> known(names.begin(), names.end());
        file.Add(Severity::ERROR, child, key,
                 "there is no group '" + name + "': the daemon lets in only root",
                 DidYouMean(name, known));
    }
}

void CheckValue(const SettingsFile& file, const YamlChild& section, const YamlChild& child) {
    const auto keys = SettingKeys();
    const auto key = std::find_if(keys.begin(), keys.end(), [&](const SettingKey& known) {
        return known.section == section.key && known.name == child.key;
    });
    const std::string name = std::string(section.key) + '.' + std::string(child.key);
    if (key == keys.end()) {
        file.Add(Severity::WARNING, child, name, "unknown key, ignored",
                 DidYouMean(child.key, NamesIn(section.key)));
    } else if (!IsValue(key->kind, *child.node)) {
        file.Add(Severity::ERROR, child, name, ExpectedValue(key->kind),
                 key->kind == SettingKind::SWITCH ? "the daemon takes it for false"
                                                  : "the daemon takes the default");
    } else if (key->kind == SettingKind::GROUP) {
        CheckGroup(file, child, name);
    }
}

void CheckSection(const SettingsFile& file, const YamlChild& section) {
    const std::vector<std::string_view> sections = SectionNames();
    const std::string name(section.key);
    if (std::find(sections.begin(), sections.end(), section.key) == sections.end()) {
        file.Add(Severity::WARNING, section, name, "unknown section, ignored",
                 DidYouMean(section.key, sections));
        return;
    }
    if (section.node->kind != YamlKind::MAP && section.node->kind != YamlKind::NOTHING) {
        file.Add(Severity::ERROR, section, name, "expected a mapping",
                 "the daemon takes the defaults of the section");
    }
    for (const YamlChild& child : section.node->children) {
        if (section.node->kind == YamlKind::MAP) {
            CheckValue(file, section, child);
        }
    }
}

}  // namespace

void CheckSettings(const std::string& path, CheckContext& context) {
    std::string text;
    if (!ReadTextFile(path, context, text)) {
        return;
    }
    PlatformHost::YamlError error;
    const PlatformHost::YamlNodePtr root = PlatformHost::ParseYamlText(text, error);
    if (root == nullptr) {
        const std::string key =
            error.nearKey.empty() ? std::string() : "near key '" + error.nearKey + "'";
        context.findings.Add({Severity::ERROR, path, error.line, key, error.text, {}});
    } else if (root->kind != YamlKind::MAP && root->kind != YamlKind::NOTHING) {
        context.findings.Add({Severity::ERROR,
                              path,
                              root->line,
                              {},
                              "expected a mapping of sections at the top of the file",
                              {}});
    } else {
        const SettingsFile file{path, context};
        for (const YamlChild& section : root->children) {
            CheckSection(file, section);
        }
    }
}

}  // namespace ProcMgr::Pmctl
