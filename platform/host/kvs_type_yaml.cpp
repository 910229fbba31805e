#include <syslog.h>

#include <exception>

#include "platform/host/diagnostics.h"
#include "platform/host/yaml_tree.h"
#include "platform/manifest.h"

namespace ProcMgr {

struct KvsTypeYaml::Node {
    std::shared_ptr<const YamlTree> tree;  // keeps `yaml` alive
    const YamlNode* yaml = nullptr;        // null: not initialised
};

KvsTypeYaml::KvsTypeYaml() : node_(std::make_unique<Node>()) {}

KvsTypeYaml::~KvsTypeYaml() = default;

bool KvsTypeYaml::InitYamlNode(const std::string& path) {
    *node_ = Node{};
    try {
        YamlFile file = ReadYamlFile(path, FileTrust::ANY);
        if (!file.error.empty()) {
            WriteDiagnostic(LOG_ERR, path + ": " + file.error);
            return false;
        }
        YamlError error;
        std::shared_ptr<const YamlTree> tree = ParseYamlText(std::move(file.text), error);
        if (!tree) {
            WriteDiagnostic(LOG_ERR, error.Describe(path));
            return false;
        }
        const YamlNode* root = tree->root;
        *node_ = Node{std::move(tree), root};
        return true;
    } catch (const std::exception& failure) {
        WriteDiagnostic(LOG_ERR, path + ": " + failure.what());
        return false;
    }
}

bool KvsTypeYaml::GetSubKvs(const std::string& key, KvsTypeYaml& child) const {
    const YamlNode* found = node_->yaml != nullptr ? node_->yaml->Find(key) : nullptr;
    if (found == nullptr) {
        return false;
    }
    *child.node_ = Node{node_->tree, found};
    return true;
}

bool KvsTypeYaml::GetBool() const {
    return ParseYamlBool(GetString()).value_or(false);
}

std::string KvsTypeYaml::GetString() const {
    return node_->yaml != nullptr ? std::string(node_->yaml->text) : std::string();
}

size_t KvsTypeYaml::GetSize() const {
    const bool isList = node_->yaml != nullptr && node_->yaml->kind == YamlKind::LIST;
    return isList ? node_->yaml->children.size() : 0;
}

bool KvsTypeYaml::GetElement(size_t index, KvsTypeYaml& child) const {
    if (index >= GetSize()) {
        return false;
    }
    *child.node_ = Node{node_->tree, node_->yaml->children[index].node};
    return true;
}

}  // namespace ProcMgr
