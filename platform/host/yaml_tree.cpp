#include "platform/host/yaml_tree.h"

#include <yaml.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <memory_resource>
#include <new>
#include <span>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/host/diagnostics.h"
#include "platform/host/yaml_file.h"

namespace PlatformHost {
namespace {

// Limit on the size of one document in bytes, aliases counted as if they were written out.
constexpr size_t MAX_COST = size_t{32} << 20;
constexpr size_t NODE_COST = 64;
// Size of a document's first block of memory in bytes; each further block is larger.
constexpr size_t FIRST_BLOCK = size_t{16} << 10;
// The plain texts that stand for no value.
constexpr std::array<std::string_view, 5> NOTHING{"", "~", "null", "Null", "NULL"};

struct TreeFault : std::runtime_error {
    TreeFault(uint32_t where, const std::string& text) : std::runtime_error(text), line(where) {}
    uint32_t line;
};

uint32_t LineOf(const yaml_mark_t& mark) {
    return static_cast<uint32_t>(mark.line) + 1;
}

uint32_t LineAt(std::string_view text, size_t offset) {
    const std::string_view before = text.substr(0, offset);
    return static_cast<uint32_t>(std::count(before.begin(), before.end(), '\n')) + 1;
}

std::string_view ToView(const yaml_char_t* text) {
    return text == nullptr ? std::string_view() : reinterpret_cast<const char*>(text);
}

[[noreturn]] void RefuseRepeatedKey(const YamlChild& child, uint32_t firstLine) {
    throw TreeFault(child.line, "key " + Quoted(child.key) +
                                    " stands twice in one mapping, first in line " +
                                    std::to_string(firstLine));
}

// Compares each key with those before it in a small map: a table would take longer to make.
void RefuseRepeatedKeys(std::span<const YamlChild> map) {
    constexpr size_t SMALL = 32;
    if (map.size() <= SMALL) {
        for (auto child = map.begin(); child != map.end(); ++child) {
            const auto first = std::find_if(map.begin(), child, [&](const YamlChild& other) {
                return other.key == child->key;
            });
            if (first != child) {
                RefuseRepeatedKey(*child, first->line);
            }
        }
        return;
    }
    std::unordered_map<std::string_view, uint32_t> lines;
    for (const YamlChild& child : map) {
        const auto [first, isNew] = lines.emplace(child.key, child.line);
        if (!isNew) {
            RefuseRepeatedKey(child, first->second);
        }
    }
}

class TreeBuilder {
public:
    std::string LastKey() const { return std::string(lastKey_); }
    // The root of the document, of kind NOTHING when the text holds none.
    YamlNodePtr Root() {
        return {memory_, root_ != nullptr ? root_ : NewNode(YamlKind::NOTHING, 1, {})};
    }

    void Take(const yaml_event_t& event) {
        const uint32_t line = LineOf(event.start_mark);
        switch (event.type) {
            case YAML_DOCUMENT_START_EVENT:
                BeginDocument(line);
                break;
            case YAML_ALIAS_EVENT:
                AddAlias(ToView(event.data.alias.anchor), line);
                break;
            case YAML_SCALAR_EVENT:
                AddLeaf(event);
                break;
            case YAML_SEQUENCE_START_EVENT:
                Open(YamlKind::LIST, line, ToView(event.data.sequence_start.anchor));
                break;
            case YAML_MAPPING_START_EVENT:
                Open(YamlKind::MAP, line, ToView(event.data.mapping_start.anchor));
                break;
            case YAML_SEQUENCE_END_EVENT:
            case YAML_MAPPING_END_EVENT:
                Close();
                break;
            default:
                break;
        }
    }

private:
    struct OpenNode {
        YamlNode* node = nullptr;
        std::string anchor;     // empty: the node has none
        size_t firstChild = 0;  // in openChildren_
        size_t costBefore = 0;
        bool wantsValue = false;  // in a map: the last child is a key without its value
    };
    struct Anchored {
        const YamlNode* node = nullptr;
        size_t cost = 0;
    };

    void Charge(size_t cost, uint32_t line) {
        cost_ += cost;
        if (cost_ > MAX_COST) {
            throw TreeFault(line, "the document is too large");
        }
    }

    // Nodes are never destroyed one by one: their memory is freed with the last YamlNodePtr.
    YamlNode* NewNode(YamlKind kind, uint32_t line, std::string_view text) {
        std::pmr::polymorphic_allocator<> allocator(memory_.get());
        return allocator.new_object<YamlNode>(YamlNode{kind, line, Store(text), {}});
    }

    std::string_view Store(std::string_view text) {
        std::pmr::polymorphic_allocator<char> allocator(memory_.get());
        char* const stored = allocator.allocate(text.size());
        std::copy(text.begin(), text.end(), stored);
        return {stored, text.size()};
    }

    std::span<const YamlChild> Store(std::span<const YamlChild> children) {
        std::pmr::polymorphic_allocator<YamlChild> allocator(memory_.get());
        YamlChild* const stored = allocator.allocate(children.size());
        std::uninitialized_copy(children.begin(), children.end(), stored);
        return {stored, children.size()};
    }

    void BeginDocument(uint32_t line) {
        if (++documents_ > 1) {
            throw TreeFault(line, "more than one document in the file");
        }
    }

    void AddLeaf(const yaml_event_t& event) {
        const auto& scalar = event.data.scalar;
        const std::string_view value(reinterpret_cast<const char*>(scalar.value), scalar.length);
        const uint32_t line = LineOf(event.start_mark);
        if (value.find('\0') != std::string_view::npos) {
            throw TreeFault(line, "a text holds a NUL character");
        }
        const bool isPlain = scalar.plain_implicit != 0 && scalar.style == YAML_PLAIN_SCALAR_STYLE;
        const bool isNothing = isPlain && std::ranges::find(NOTHING, value) != NOTHING.end();
        const YamlKind kind = isNothing ? YamlKind::NOTHING : YamlKind::TEXT;
        const size_t cost = NODE_COST + value.size();
        Charge(cost, line);
        Finish(NewNode(kind, line, value), ToView(scalar.anchor), cost);
    }

    void AddAlias(std::string_view anchor, uint32_t line) {
        if (std::ranges::find(open_, anchor, &OpenNode::anchor) != open_.end()) {
            throw TreeFault(line, "an alias lies inside its own anchor");
        }
        const auto found = anchors_.find(anchor);
        if (found == anchors_.end()) {
            throw TreeFault(line, "invalid YAML: no anchor " + Quoted(std::string(anchor)) +
                                      " before this alias");
        }
        Charge(found->second.cost, line);
        Add(found->second.node, line);
    }

    void Open(YamlKind kind, uint32_t line, std::string_view anchor) {
        if (open_.size() >= MAX_YAML_DEPTH) {
            throw TreeFault(line, "nested too deeply");
        }
        open_.push_back(
            OpenNode{NewNode(kind, line, {}), std::string(anchor), openChildren_.size(), cost_});
        Charge(NODE_COST, line);
    }

    void Close() {
        const OpenNode closed = std::move(open_.back());
        open_.pop_back();
        const auto children = std::span(openChildren_).subspan(closed.firstChild);
        if (closed.node->kind == YamlKind::MAP) {
            RefuseRepeatedKeys(children);
        }
        closed.node->children = Store(children);
        openChildren_.resize(closed.firstChild);
        Finish(closed.node, closed.anchor, cost_ - closed.costBefore);
    }

    void Finish(const YamlNode* node, std::string_view anchor, size_t cost) {
        if (!anchor.empty()) {
            anchors_.insert_or_assign(std::string(anchor), Anchored{node, cost});
        }
        Add(node, node->line);
    }

    void Add(const YamlNode* node, uint32_t line) {
        if (open_.empty()) {
            root_ = node;
            return;
        }
        OpenNode& parent = open_.back();
        if (parent.node->kind == YamlKind::LIST) {
            openChildren_.push_back(YamlChild{{}, line, node});
        } else if (std::exchange(parent.wantsValue, !parent.wantsValue)) {
            openChildren_.back().node = node;
        } else if (node->kind == YamlKind::TEXT) {
            lastKey_ = node->text;
            openChildren_.push_back(YamlChild{node->text, line, nullptr});
        } else {
            throw TreeFault(line, "a key is not text");
        }
    }

    const std::shared_ptr<std::pmr::monotonic_buffer_resource> memory_ =
        std::make_shared<std::pmr::monotonic_buffer_resource>(FIRST_BLOCK);
    const YamlNode* root_ = nullptr;
    std::vector<OpenNode> open_;  // from the root to the innermost list or map that is not ended
    std::vector<YamlChild> openChildren_;  // of the nodes of open_, one node after the other
    std::map<std::string, Anchored, std::less<>> anchors_;
    std::string_view lastKey_;
    size_t cost_ = 0;
    int documents_ = 0;
};

// Whether a byte is a control character that no text file holds.
constexpr std::array<bool, 256> IS_CONTROL = [] {
    std::array<bool, 256> table{};
    std::fill_n(table.begin(), 0x20, true);
    for (const char allowed : {'\t', '\n', '\r'}) {
        table[static_cast<size_t>(allowed)] = false;
    }
    table[0x7f] = true;
    return table;
}();

// Refuses binary data and UTF-16 with a plain message before the parser stumbles over them.
void RefuseControlCharacters(std::string_view text) {
    const auto bad = std::find_if(text.begin(), text.end(),
                                  [](char c) { return IS_CONTROL[static_cast<unsigned char>(c)]; });
    if (bad != text.end()) {
        throw TreeFault(LineAt(text, static_cast<size_t>(bad - text.begin())),
                        "not a text file: it holds a control character");
    }
}

// The events of one text, which must outlive the object.
class EventReader {
public:
    explicit EventReader(std::string_view text) : text_(text) {
        if (yaml_parser_initialize(&parser_) == 0) {
            throw std::bad_alloc();
        }
        yaml_parser_set_input_string(&parser_, reinterpret_cast<const unsigned char*>(text.data()),
                                     text.size());
    }
    ~EventReader() {
        yaml_event_delete(&event_);
        yaml_parser_delete(&parser_);
    }
    EventReader(const EventReader&) = delete;
    EventReader& operator=(const EventReader&) = delete;

    // Valid until the next call. Throws a TreeFault when the text is not valid.
    const yaml_event_t& Next() {
        yaml_event_delete(&event_);
        if (yaml_parser_parse(&parser_, &event_) == 0) {
            ThrowFault();
        }
        return event_;
    }

private:
    [[noreturn]] void ThrowFault() const {
        if (parser_.error == YAML_MEMORY_ERROR) {
            throw std::bad_alloc();
        }
        const std::string context = parser_.context == nullptr ? "" : parser_.context;
        const std::string problem = parser_.problem == nullptr ? "" : parser_.problem;
        if (context == "while scanning a quoted scalar" &&
            problem == "found unexpected end of stream") {
            throw TreeFault(LineOf(parser_.context_mark),
                            "the quote that opens here is never closed");
        }
        const uint32_t line = parser_.error == YAML_READER_ERROR
                                  ? LineAt(text_, parser_.problem_offset)
                                  : LineOf(parser_.problem_mark);
        throw TreeFault(line,
                        "invalid YAML: " + (context.empty() ? problem : context + ", " + problem));
    }

    const std::string_view text_;
    yaml_parser_t parser_{};
    yaml_event_t event_{};
};

void Build(std::string_view text, TreeBuilder& builder) {
    if (text.size() > MAX_YAML_FILE) {
        throw TreeFault(1, "the document is too large");
    }
    RefuseControlCharacters(text);
    EventReader reader(text);
    for (bool isEnd = false; !isEnd;) {
        const yaml_event_t& event = reader.Next();
        builder.Take(event);
        isEnd = event.type == YAML_STREAM_END_EVENT;
    }
}

}  // namespace

const YamlNode* YamlNode::Find(std::string_view key) const {
    if (kind != YamlKind::MAP) {
        return nullptr;
    }
    const auto found = std::find_if(children.begin(), children.end(),
                                    [key](const YamlChild& child) { return child.key == key; });
    return found == children.end() ? nullptr : found->node;
}

std::string YamlError::Describe(const std::string& file) const {
    std::string where = file + ":" + std::to_string(line) + ": ";
    if (!nearKey.empty()) {
        where += "near key " + Quoted(nearKey) + ": ";
    }
    return where + text;
}

YamlNodePtr ParseYamlText(std::string_view text, YamlError& error) {
    TreeBuilder builder;
    try {
        Build(text, builder);
        return builder.Root();
    } catch (const TreeFault& fault) {
        error = YamlError{fault.line, builder.LastKey(), fault.what()};
    }
    return nullptr;
}

std::optional<bool> ParseYamlBool(std::string_view text) {
    struct Word {
        std::string_view lower;
        std::string_view capitalised;
        std::string_view upper;
        bool value;
    };
    static constexpr std::array<Word, 8> WORDS{{{"true", "True", "TRUE", true},
                                                {"false", "False", "FALSE", false},
                                                {"yes", "Yes", "YES", true},
                                                {"no", "No", "NO", false},
                                                {"on", "On", "ON", true},
                                                {"off", "Off", "OFF", false},
                                                {"y", "y", "Y", true},
                                                {"n", "n", "N", false}}};
    for (const Word& word : WORDS) {
        if (text == word.lower || text == word.capitalised || text == word.upper) {
            return word.value;
        }
    }
    return std::nullopt;
}

}  // namespace PlatformHost
