// KvsTypeYaml of platform/manifest.h: reads YAML files that are not manifests.
#include <syslog.h>

#include <exception>
#include <utility>

#include "platform/host/diagnostics.h"
#include "platform/host/yaml_file.h"
#include "platform/host/yaml_tree.h"
#include "platform/manifest.h"

namespace ProcMgr {

using PlatformHost::WriteDiagnostic;
using PlatformHost::YamlKind;

struct KvsTypeYaml::Node {
    PlatformHost::YamlNodePtr yaml;  // null before a successful InitYamlNode
};

KvsTypeYaml::KvsTypeYaml() : node_(std::make_unique<Node>()) {}

KvsTypeYaml::~KvsTypeYaml() = default;

bool KvsTypeYaml::InitYamlNode(const std::string& path) {
    node_->yaml.reset();
    try {
        PlatformHost::YamlFile file =
            PlatformHost::ReadYamlFile(path, PlatformHost::FileTrust::ANY);
        if (!file.error.empty()) {
            WriteDiagnostic(LOG_ERR, path + ": " + file.error);
            return false;
        }
        PlatformHost::YamlError error;
        node_->yaml = PlatformHost::ParseYamlText(file.text, error);
        if (node_->yaml == nullptr) {
            WriteDiagnostic(LOG_ERR, error.Describe(path));
        }
    } catch (const std::exception& failure) {
        WriteDiagnostic(LOG_ERR, path + ": " + failure.what());
    }
    return node_->yaml != nullptr;
}

bool KvsTypeYaml::GetSubKvs(const std::string& key, KvsTypeYaml& child) const {
    const auto* found = node_->yaml != nullptr ? node_->yaml->Find(key) : nullptr;
    if (found == nullptr) {
        return false;
    }
    child.node_->yaml = {node_->yaml, found};
    return true;
}

bool KvsTypeYaml::GetBool() const {
    return PlatformHost::ParseYamlBool(GetString()).value_or(false);
}

std::string KvsTypeYaml::GetString() const {
    const bool isText = node_->yaml != nullptr && node_->yaml->kind == YamlKind::TEXT;
    return isText ? std::string(node_->yaml->text) : std::string();
}

size_t KvsTypeYaml::GetSize() const {
    const bool isList = node_->yaml != nullptr && node_->yaml->kind == YamlKind::LIST;
    return isList ? node_->yaml->children.size() : 0;
}

bool KvsTypeYaml::GetElement(size_t index, KvsTypeYaml& child) const {
    if (index >= GetSize()) {
        return false;
    }
    child.node_->yaml = {node_->yaml, node_->yaml->children[index].node};
    return true;
}

}  // namespace ProcMgr
