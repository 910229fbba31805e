#include "platform/host/yaml_tree.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <array>
#include <exception>
#include <span>
#include <sstream>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include "platform/host/diagnostics.h"
#include "platform/host/yaml_file.h"

namespace PlatformHost {
namespace {

// Limit on the size of one document in bytes, aliases counted as if they were written out.
constexpr size_t MAX_COST = size_t{32} << 20;
constexpr size_t NODE_COST = 64;
// Size of a document's first block of memory in bytes; each further block is larger.
constexpr size_t FIRST_BLOCK = size_t{16} << 10;

struct TreeFault : std::runtime_error {
    TreeFault(uint32_t where, const std::string& text) : std::runtime_error(text), line(where) {}
    uint32_t line;
};

uint32_t LineOf(const YAML::Mark& mark) {
    return mark.line < 0 ? 1 : static_cast<uint32_t>(mark.line) + 1;
}

void RefuseRepeatedKeys(std::span<const YamlChild> map) {
    std::unordered_map<std::string_view, uint32_t> lines;
    for (const YamlChild& child : map) {
        const auto [first, isNew] = lines.emplace(child.key, child.line);
        if (!isNew) {
            throw TreeFault(child.line, "key " + Quoted(child.key) +
                                            " stands twice in one mapping, first in line " +
                                            std::to_string(first->second));
        }
    }
}

class TreeBuilder : public YAML::EventHandler {
public:
    const std::string& LastKey() const { return lastKey_; }
    // The root of the document, of kind NOTHING when the text holds none.
    YamlNodePtr Root() {
        return {memory_, root_ != nullptr ? root_ : NewNode(YamlKind::NOTHING, 1, {})};
    }

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
        RefuseRepeatedKeys(open_.back().node->children);
        Close();
    }

private:
    struct OpenNode {
        YamlNode* node = nullptr;
        YAML::anchor_t anchor = 0;
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
        return allocator.new_object<YamlNode>(kind, line, text, memory_.get());
    }

    void AddLeaf(YamlKind kind, uint32_t line, YAML::anchor_t anchor, const std::string& value) {
        if (value.find('\0') != std::string::npos) {
            throw TreeFault(line, "a text holds a NUL character");
        }
        const size_t cost = NODE_COST + value.size();
        Charge(cost, line);
        Finish(NewNode(kind, line, value), anchor, cost);
    }

    void Open(YamlKind kind, uint32_t line, YAML::anchor_t anchor) {
        if (open_.size() >= MAX_YAML_DEPTH) {
            throw TreeFault(line, "nested too deeply");
        }
        open_.push_back(OpenNode{NewNode(kind, line, {}), anchor, cost_});
        Charge(NODE_COST, line);
    }

    void Close() {
        const OpenNode closed = open_.back();
        open_.pop_back();
        Finish(closed.node, closed.anchor, cost_ - closed.costBefore);
    }

    void Finish(const YamlNode* node, YAML::anchor_t anchor, size_t cost) {
        if (anchor != 0) {
            anchors_[anchor] = Anchored{node, cost};
        }
        Add(node, node->line);
    }

    void Add(const YamlNode* node, uint32_t line) {
        if (open_.empty()) {
            root_ = node;
            return;
        }
        OpenNode& parent = open_.back();
        std::pmr::vector<YamlChild>& children = parent.node->children;
        if (parent.node->kind == YamlKind::LIST) {
            children.push_back(YamlChild{{}, line, node});
        } else if (std::exchange(parent.wantsValue, !parent.wantsValue)) {
            children.back().node = node;
        } else if (node->kind == YamlKind::TEXT) {
            lastKey_ = node->text;
            children.push_back(YamlChild{node->text, line, nullptr});
        } else {
            throw TreeFault(line, "a key is not text");
        }
    }

    const std::shared_ptr<std::pmr::monotonic_buffer_resource> memory_ =
        std::make_shared<std::pmr::monotonic_buffer_resource>(FIRST_BLOCK);
    const YamlNode* root_ = nullptr;
    std::vector<OpenNode> open_;  // from the root to the innermost list or map that is not ended
    std::unordered_map<YAML::anchor_t, Anchored> anchors_;
    std::string lastKey_;
    size_t cost_ = 0;
    int documents_ = 0;
};

// yaml-cpp takes some control characters for the end of its input and would ignore the rest of the
// file without an error. YAML allows none of these characters.
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

// Makes yaml-cpp report a quoted text that is not closed: without help it accepts the end of the
// file as the closing quote when a quote or a line break comes directly before it. A comment
// appended to the text changes no valid document, and inside an open quote it leads to the error.
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

// Records the first line of the scalar that ends with QUOTE_END.
class QuoteFinder : public TreeBuilder {
public:
    void OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                  const std::string& value) override {
        if (std::string_view(value).ends_with(QUOTE_END)) {
            line = LineOf(mark);
        }
        TreeBuilder::OnScalar(mark, tag, anchor, value);
    }
    uint32_t line = 0;
};

// The line of the opening quote in a `text` whose last quote is not closed. yaml-cpp reports the
// line of complete scalars only, so the text is parsed again with each kind of closing quote
// appended. When the closed scalar is not valid at its place, the line of that error is the answer.
uint32_t LineOfQuote(const std::string& text) {
    for (const char quote : {'"', '\''}) {
        QuoteFinder finder;
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

YamlNodePtr ParseYamlText(std::string text, YamlError& error) {
    TreeBuilder builder;
    try {
        Build(std::move(text), builder);
        return builder.Root();
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

}  // namespace PlatformHost
