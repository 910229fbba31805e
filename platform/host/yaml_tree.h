// A YAML document as a small tree with line numbers, and the reading of YAML files. Built from the
// events of yaml-cpp with limits on size, depth and alias use, so that no file, however odd, costs
// more than a fixed amount of memory. The manifest loader and KvsTypeYaml stand on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace ProcMgr {

enum class YamlKind { NOTHING, TEXT, LIST, MAP };

struct YamlNode;

// An element of a list or, with its key, of a map.
struct YamlChild {
    std::string_view key;
    uint32_t line = 0;  // of the key; in a list, of the element
    const YamlNode* node = nullptr;
};

struct YamlNode {
    YamlKind kind = YamlKind::NOTHING;
    uint32_t line = 0;  // counted from 1
    std::string_view text;
    std::span<const YamlChild> children;  // in file order; keys are unique

    // The value under `key`, or null when this is not a map or has no such key.
    const YamlNode* Find(std::string_view key) const;
};

// Owns a document whole: its nodes and texts lie in few large blocks, which go back to the system
// with it and do not leave a long-running process with a heap full of holes.
struct YamlTree {
    std::pmr::monotonic_buffer_resource memory{size_t{16} << 10};
    const YamlNode* root = nullptr;
};

// Why a text is not a usable YAML document.
struct YamlError {
    uint32_t line = 0;
    std::string nearKey;  // the last key before the error; empty when there was none
    std::string text;

    // "FILE:LINE: near key 'KEY': TEXT", the key only when there is one.
    std::string Describe(const std::string& file) const;
};

// yaml-cpp keeps all tokens of a "[...]" or "{...}" until it ends, at a hundred times the size of
// their text, so that the size of a file bounds the memory that reading it takes.
constexpr size_t MAX_YAML_FILE = size_t{1} << 20;
constexpr size_t MAX_YAML_DEPTH = 32;

// Parses one document. An empty one has a NOTHING root, a broken one gives null and sets `error`.
// Keys are text and unique in their map, and no text holds a NUL. Throws only std::bad_alloc.
std::shared_ptr<const YamlTree> ParseYamlText(std::string text, YamlError& error);

// The words true, yes, on, y and false, no, off, n in lower, upper or capitalised form.
std::optional<bool> ParseYamlBool(std::string_view text);

// A file read whole, or why it was not.
struct YamlFile {
    std::string text;
    std::string realPath;  // of OWNER_ONLY: tells whether two paths are the same file
    std::string error;     // empty on success
};

enum class FileTrust {
    ANY,
    // Only a file that Wire::OpenRootFile opens: its content decides what runs with our privileges.
    OWNER_ONLY,
};

// Reads a regular file of at most MAX_YAML_FILE bytes. Throws only std::bad_alloc.
YamlFile ReadYamlFile(const std::string& path, FileTrust trust);

}  // namespace ProcMgr
