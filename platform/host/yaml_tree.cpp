#include "platform/host/yaml_tree.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <new>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/host/diagnostics.h"

namespace ProcMgr {
namespace {

// Memory that one document may stand for, aliases counted as if they were written out.
constexpr size_t MAX_COST = size_t{32} << 20;
constexpr size_t NODE_COST = 64;

struct TreeFault : std::runtime_error {
    TreeFault(uint32_t where, const std::string& text) : std::runtime_error(text), line(where) {}
    uint32_t line;
};

uint32_t LineOf(const YAML::Mark& mark) {
    return mark.line < 0 ? 1 : static_cast<uint32_t>(mark.line) + 1;
}

class TreeBuilder : public YAML::EventHandler {
public:
    explicit TreeBuilder(YamlTree& tree) : tree_(tree) {}

    const std::string& LastKey() const { return lastKey_; }

    void OnDocumentStart(const YAML::Mark& mark) override {
        if (++documents_ > 1) {
            throw TreeFault(LineOf(mark), "more than one document in the file");
        }
    }
    void OnDocumentEnd() override {}

    void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override {
        AddLeaf(YamlKind::NOTHING, LineOf(mark), anchor, {});
    }
    void OnScalar(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t anchor,
                  const std::string& value) override {
        AddLeaf(YamlKind::TEXT, LineOf(mark), anchor, value);
    }
    void OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) override {
        const auto found = anchors_.find(anchor);
        if (found == anchors_.end()) {
            throw TreeFault(LineOf(mark), "an alias lies inside its own anchor");
        }
        Charge(found->second.cost, LineOf(mark));
        Add(found->second.node, LineOf(mark));
    }

    void OnSequenceStart(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value /*style*/) override {
        Open(YamlKind::LIST, LineOf(mark), anchor);
    }
    void OnMapStart(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value /*style*/) override {
        Open(YamlKind::MAP, LineOf(mark), anchor);
    }
    void OnSequenceEnd() override { Close(); }
    void OnMapEnd() override {
        RefuseRepeatedKeys(std::span(children_).subspan(open_.back().firstChild));
        Close();
    }

private:
    struct OpenNode {
        YamlNode* node = nullptr;
        YAML::anchor_t anchor = 0;
        size_t costBefore = 0;
        size_t firstChild = 0;    // its children so far are children_ from here on
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

    YamlNode* NewNode(YamlKind kind, uint32_t line) {
        void* memory = tree_.memory.allocate(sizeof(YamlNode), alignof(YamlNode));
        return new (memory) YamlNode{kind, line, {}, {}};
    }

    // Nodes and children are never destroyed one by one: their memory goes as a whole.
    static_assert(std::is_trivially_destructible_v<YamlNode>);
    static_assert(std::is_trivially_destructible_v<YamlChild>);

    std::string_view Keep(std::string_view text) {
        if (text.empty()) {
            return {};
        }
        auto* const memory = static_cast<char*>(tree_.memory.allocate(text.size(), 1));
        std::copy(text.begin(), text.end(), memory);
        return {memory, text.size()};
    }

    std::span<const YamlChild> Keep(std::span<const YamlChild> children) {
        if (children.empty()) {
            return {};
        }
        void* memory = tree_.memory.allocate(children.size_bytes(), alignof(YamlChild));
        auto* const first = static_cast<YamlChild*>(memory);
        std::uninitialized_copy(children.begin(), children.end(), first);
        return {first, children.size()};
    }

    void AddLeaf(YamlKind kind, uint32_t line, YAML::anchor_t anchor, const std::string& value) {
        if (value.find('\0') != std::string::npos) {
            throw TreeFault(line, "a text holds a NUL character");
        }
        const size_t cost = NODE_COST + value.size();
        Charge(cost, line);
        YamlNode* const node = NewNode(kind, line);
        node->text = Keep(value);
        Remember(anchor, node, cost);
        Add(node, line);
    }

    void Open(YamlKind kind, uint32_t line, YAML::anchor_t anchor) {
        if (open_.size() >= MAX_YAML_DEPTH) {
            throw TreeFault(line, "nested too deeply");
        }
        open_.push_back(OpenNode{NewNode(kind, line), anchor, cost_, children_.size(), false});
        Charge(NODE_COST, line);
    }

    void Close() {
        const OpenNode closed = open_.back();
        open_.pop_back();
        closed.node->children =
            Keep(std::span<const YamlChild>(children_).subspan(closed.firstChild));
        children_.resize(closed.firstChild);
        Remember(closed.anchor, closed.node, cost_ - closed.costBefore);
        Add(closed.node, closed.node->line);
    }

    void Remember(YAML::anchor_t anchor, const YamlNode* node, size_t cost) {
        if (anchor != 0) {
            anchors_[anchor] = Anchored{node, cost};
        }
    }

    void Add(const YamlNode* node, uint32_t line) {
        if (open_.empty()) {
            tree_.root = node;
            return;
        }
        OpenNode& parent = open_.back();
        if (parent.node->kind == YamlKind::LIST) {
            children_.push_back(YamlChild{{}, line, node});
        } else if (parent.wantsValue) {
            children_.back().node = node;
            parent.wantsValue = false;
        } else {
            AddKey(parent, node, line);
        }
    }

    void AddKey(OpenNode& map, const YamlNode* key, uint32_t line) {
        if (key->kind != YamlKind::TEXT) {
            throw TreeFault(line, "a key is not text");
        }
        lastKey_ = key->text;
        children_.push_back(YamlChild{key->text, line, nullptr});
        map.wantsValue = true;
    }

    static void RefuseRepeatedKeys(std::span<const YamlChild> map) {
        std::vector<YamlChild> sorted(map.begin(), map.end());
        std::stable_sort(sorted.begin(), sorted.end(),
                         [](const YamlChild& a, const YamlChild& b) { return a.key < b.key; });
        const auto twice = std::adjacent_find(
            sorted.begin(), sorted.end(),
            [](const YamlChild& a, const YamlChild& b) { return a.key == b.key; });
        if (twice != sorted.end()) {
            const YamlChild& second = *std::next(twice);
            throw TreeFault(second.line, "key " + Quoted(second.key) +
                                             " stands twice in one mapping, first in line " +
                                             std::to_string(twice->line));
        }
    }

    YamlTree& tree_;
    std::vector<OpenNode> open_;
    std::vector<YamlChild> children_;  // of all open nodes, the outermost one's first
    std::unordered_map<YAML::anchor_t, Anchored> anchors_;
    std::string lastKey_;
    size_t cost_ = 0;
    int documents_ = 0;
};

// yaml-cpp takes some control characters for the end of its input, so that the rest of the file
// would be dropped without a word; YAML allows none of them.
void RefuseControlCharacters(std::string_view text) {
    const auto bad = std::find_if(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\t' && c != '\n' && c != '\r') || byte == 0x7f;
    });
    if (bad != text.end()) {
        const auto line = std::count(text.begin(), bad, '\n') + 1;
        throw TreeFault(static_cast<uint32_t>(line),
                        "not a text file: it holds a control character");
    }
}

void Parse(std::string text, TreeBuilder& builder) {
    std::istringstream stream(std::move(text));
    YAML::Parser parser(stream);
    while (parser.HandleNextDocument(builder)) {
    }
}

bool IsUnclosedQuote(const YAML::Exception& fault) {
    return fault.msg == YAML::ErrorMsg::EOF_IN_SCALAR;
}

// yaml-cpp takes the end of the file for the end of a quoted text where it comes behind a quote or
// a line break. A comment after it means nothing anywhere else, and is seen as missing the quote.
void MarkEnd(std::string& text) {
    const size_t last = text.find_last_not_of(" \t");
    const char ending = last == std::string::npos ? '\n' : text[last];
    if (ending == '\n' || ending == '\r') {
        text.resize(last == std::string::npos ? 0 : last + 1);
        text += '#';
    } else if (ending == '"' || ending == '\'') {
        text += "\n#";
    }
}

constexpr std::string_view QUOTE_END = "<end of the file>";

// Notes the line where the text with QUOTE_END at its end begins.
class QuoteFinder : public TreeBuilder {
public:
    using TreeBuilder::TreeBuilder;
    void OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                  const std::string& value) override {
        if (std::string_view(value).ends_with(QUOTE_END)) {
            line = LineOf(mark);
        }
        TreeBuilder::OnScalar(mark, tag, anchor, value);
    }
    uint32_t line = 0;
};

// The line where the quote opens that `text` lacks the end of. yaml-cpp only tells the place of
// whole texts, so the text is given each possible end; a text that does not fit where it stands is
// in the place of the error.
uint32_t LineOfQuote(const std::string& text) {
    for (const char quote : {'"', '\''}) {
        YamlTree tree;
        QuoteFinder finder(tree);
        try {
            Parse(text + std::string(QUOTE_END) + quote + "\n#", finder);
        } catch (const TreeFault& fault) {
            return finder.line != 0 ? finder.line : fault.line;
        } catch (const YAML::Exception& fault) {
            if (finder.line == 0 && IsUnclosedQuote(fault)) {
                continue;
            }
            return finder.line != 0 ? finder.line : LineOf(fault.mark);
        }
        if (finder.line != 0) {
            return finder.line;
        }
    }
    return 1;
}

void Build(std::string text, TreeBuilder& builder) {
    if (text.size() > MAX_YAML_FILE) {
        throw TreeFault(1, "the document is too large");
    }
    RefuseControlCharacters(text);
    MarkEnd(text);
    try {
        Parse(text, builder);
    } catch (const YAML::Exception& fault) {
        if (!IsUnclosedQuote(fault)) {
            throw;
        }
        throw TreeFault(LineOfQuote(text), "the quote that opens here is never closed");
    }
}

constexpr YamlNode EMPTY_DOCUMENT{YamlKind::NOTHING, 1, {}, {}};

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

std::shared_ptr<const YamlTree> ParseYamlText(std::string text, YamlError& error) {
    auto tree = std::make_shared<YamlTree>();
    TreeBuilder builder(*tree);
    try {
        Build(std::move(text), builder);
        tree->root = tree->root != nullptr ? tree->root : &EMPTY_DOCUMENT;
        return tree;
    } catch (const TreeFault& fault) {
        error = YamlError{fault.line, builder.LastKey(), fault.what()};
    } catch (const YAML::Exception& invalid) {
        error = YamlError{LineOf(invalid.mark), builder.LastKey(), "invalid YAML: " + invalid.msg};
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

}  // namespace ProcMgr
