// A YAML document as a tree of nodes with line numbers. The tree is built from the events of
// libyaml with limits on size, depth and alias use, so that the memory for any file is bounded.
// The manifest loader and KvsTypeYaml read their files with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace PlatformHost {

enum class YamlKind { NOTHING, TEXT, LIST, MAP };

struct YamlNode;

// An element of a list or, with its key, of a map. An alias has the node of its anchor.
struct YamlChild {
    std::string_view key;
    uint32_t line = 0;  // of the key; in a list, of the element
    const YamlNode* node = nullptr;
};

// Texts and children are in the memory of the document.
struct YamlNode {
    YamlKind kind = YamlKind::NOTHING;
    uint32_t line = 0;                    // counted from 1
    std::string_view text;                // of NOTHING: how the file spells it, for example "null"
    std::span<const YamlChild> children;  // in file order; keys are unique

    // The value under `key`, or null when this is not a map or has no such key.
    const YamlNode* Find(std::string_view key) const;
};

// A node that keeps its document alive. All nodes of a document are in few large blocks of memory:
// single blocks between blocks that stay would leave the heap of the daemon full of holes.
using YamlNodePtr = std::shared_ptr<const YamlNode>;

// Why a text is not a usable YAML document.
struct YamlError {
    uint32_t line = 0;
    std::string nearKey;  // the last key before the error; empty when there was none
    std::string text;

    // "FILE:LINE: near key 'KEY': TEXT"; the part with the key only when there is one.
    std::string Describe(const std::string& file) const;
};

constexpr size_t MAX_YAML_DEPTH = 32;

// Parses one document and returns its root; the root of an empty document is of kind NOTHING.
// Returns null and sets `error` when the text is not valid. Keys are text and unique in their map,
// and no text holds a NUL. Any thread; throws only std::bad_alloc.
YamlNodePtr ParseYamlText(std::string_view text, YamlError& error);

// Accepts true, yes, on, y and false, no, off, n in lower, upper or capitalised form.
std::optional<bool> ParseYamlBool(std::string_view text);

}  // namespace PlatformHost
