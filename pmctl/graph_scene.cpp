#include "pmctl/graph_scene.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "pmctl/graph_layout.h"
#include "pmctl/graph_lines.h"
#include "pmctl/svg.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t VERTICES_MAX = 3000;
constexpr size_t EDGES_MAX = 20000;
constexpr size_t LABEL_COLUMNS = 28;
// Boxes of a layer: from the top to the bottom, and beside each other.
constexpr size_t COLUMN_SIZE = 32;
constexpr size_t ROW_SIZE = 12;
constexpr double BOX_HEIGHT = 26;
constexpr double BOX_PADDING = 20;  // of both sides together
constexpr double COLUMN_GAP = 56;
constexpr double ROW_GAP = 52;
constexpr double GAP_PER_LINE = 0.6;  // more room for many lines
constexpr double GAP_MORE_MAX = 70;
constexpr double GRID_GAP = 12;
constexpr double GRID_WIDTH_MIN = 900;
constexpr double WIDE = 1500;  // a picture that is wider and flat is turned

struct Vertex {
    std::string name;
    const GraphNode* node = nullptr;  // null: missing
};

class SceneMaker {
public:
    explicit SceneMaker(const Graph& graph) : graph_(graph) {}

    Scene Run() {
        ReadGraph();
        scene_.services = graph_.nodes.size();
        scene_.dependencies = edges_.size();
        scene_.isTooLarge = vertices_.size() > VERTICES_MAX || edges_.size() > EDGES_MAX;
        if (!scene_.isTooLarge) {
            const std::vector<size_t> layers = FindLayers(vertices_.size(), edges_);
            Place(layers);
        }
        if (!scene_.isTooLarge) {
            MakeBoxes();
            MakeLines();
            PlaceSingles();
        }
        return std::move(scene_);
    }

private:
    size_t IndexOf(const std::string& name) {
        const auto [found, isNew] = indexOf_.try_emplace(name, vertices_.size());
        if (isNew) {
            vertices_.push_back({name, nullptr});
        }
        return found->second;
    }

    void ReadGraph() {
        for (const GraphNode& node : graph_.nodes) {
            const size_t index = IndexOf(node.name);
            vertices_[index].node = &node;
        }
        std::set<std::pair<size_t, size_t>> known;
        for (const GraphNode& node : graph_.nodes) {
            const size_t to = IndexOf(node.name);
            for (const std::string& depend : node.depends) {
                const size_t from = IndexOf(depend);
                if (known.emplace(from, to).second) {
                    edges_.push_back({from, to});
                }
            }
        }
    }

    double LabelWidth(size_t vertex) const {
        return TextWidth(ShortenedText(vertices_[vertex].name, LABEL_COLUMNS)) + BOX_PADDING;
    }

    // The layout from the left to the right, and from the top to the bottom when that is too wide.
    void Place(std::vector<size_t> layers) {
        isSingle_.assign(vertices_.size(), true);
        for (const GraphEdge& edge : edges_) {
            isSingle_[edge.from] = isSingle_[edge.from] && edge.from == edge.to;
            isSingle_[edge.to] = isSingle_[edge.to] && edge.from == edge.to;
        }
        PullFirst(layers);
        Lay(layers, false);
        if (!scene_.isTooLarge && scene_.width > WIDE && scene_.height < scene_.width / 2) {
            const auto across = std::pair(layout_, starts_);
            const double width = scene_.width;
            Lay(layers, true);
            if (scene_.width >= width) {
                std::tie(layout_, starts_) = across;
                Measure(false);
            }
        }
    }

    // What waits for nothing stands just before the first that waits for it: short lines cross
    // less.
    void PullFirst(std::vector<size_t>& layers) const {
        std::vector<size_t> first(vertices_.size(), static_cast<size_t>(-1));
        std::vector<bool> waits(vertices_.size());
        for (const GraphEdge& edge : edges_) {
            if (!edge.isBack) {
                first[edge.from] = std::min(first[edge.from], layers[edge.to]);
                waits[edge.to] = true;
            }
        }
        for (size_t vertex = 0; vertex < vertices_.size(); ++vertex) {
            const bool isUsed = first[vertex] != static_cast<size_t>(-1);
            if (isUsed && !waits[vertex] && first[vertex] > 0) {
                layers[vertex] = first[vertex] - 1;
            }
        }
    }

    void Lay(const std::vector<size_t>& layers, bool isTurned) {
        std::vector<double> breadths;
        for (size_t vertex = 0; vertex < vertices_.size(); ++vertex) {
            breadths.push_back(isTurned ? LabelWidth(vertex) : BOX_HEIGHT);
        }
        layout_ =
            MakeLayout(layers, edges_, breadths, isSingle_, isTurned ? ROW_SIZE : COLUMN_SIZE);
        scene_.isTooLarge = layout_.isTooLarge;
        OrderItems(layout_);
        PlaceItems(layout_);
        Measure(isTurned);
    }

    // The begins of the layers along the main axis, and the size of the picture.
    void Measure(bool isTurned) {
        isTurned_ = isTurned;
        starts_.clear();
        double at = 0;
        double across = 0;
        for (const std::vector<size_t>& layer : layout_.layers) {
            double depth = isTurned ? BOX_HEIGHT : 0;
            size_t lines = 0;
            for (const size_t index : layer) {
                const LayoutItem& item = layout_.items[index];
                if (item.vertex != LayoutItem::BEND && !isTurned) {
                    depth = std::max(depth, LabelWidth(item.vertex));
                }
                lines += item.after.size();
                across = std::max(across, item.centre + item.breadth / 2);
            }
            starts_.push_back({at, depth});
            const double more = std::min(GAP_PER_LINE * static_cast<double>(lines), GAP_MORE_MAX);
            at += depth + (isTurned ? ROW_GAP : COLUMN_GAP) + more;
        }
        const double along = starts_.empty() ? 0 : starts_.back().begin + starts_.back().depth;
        scene_.width = isTurned ? across : along;
        scene_.height = isTurned ? along : across;
    }

    std::string ClassesOf(size_t vertex) const {
        const Vertex& shown = vertices_[vertex];
        if (shown.node == nullptr) {
            return "missing";
        }
        const bool isOnCycle =
            std::any_of(edges_.begin(), edges_.end(), [vertex](const GraphEdge& edge) {
                return edge.isOnCycle && (edge.from == vertex || edge.to == vertex);
            });
        return std::string(StateClass(shown.node->state)) + (isOnCycle ? " cycle" : "");
    }

    std::string ToolTipOf(size_t vertex) const {
        const Vertex& shown = vertices_[vertex];
        if (shown.node == nullptr) {
            return shown.name + "\nmissing";
        }
        std::string text = shown.name;
        text += shown.node->state.empty() ? "" : "\n" + shown.node->state;
        text += shown.node->note.empty() ? "" : "\n" + shown.node->note;
        const char* separator = "\nafter ";
        for (const std::string& depend : shown.node->depends) {
            text += separator + depend;
            separator = ", ";
        }
        return text;
    }

    void MakeBoxes() {
        for (size_t vertex = 0; vertex < vertices_.size(); ++vertex) {
            SceneBox box;
            box.name = vertices_[vertex].name;
            box.label = ShortenedText(box.name, LABEL_COLUMNS);
            box.classes = ClassesOf(vertex);
            box.toolTip = ToolTipOf(vertex);
            box.height = BOX_HEIGHT;
            box.width = LabelWidth(vertex);
            if (!isSingle_[vertex]) {
                PlaceBox(layout_.items[vertex], box);
            }
            scene_.hasMissing = scene_.hasMissing || vertices_[vertex].node == nullptr;
            scene_.boxes.push_back(std::move(box));
        }
        for (const GraphEdge& edge : edges_) {
            scene_.hasCycle = scene_.hasCycle || edge.isOnCycle;
            scene_.boxes[edge.from].isLoop |= edge.from == edge.to;
        }
    }

    void PlaceBox(const LayoutItem& item, SceneBox& box) const {
        const LayerSpan& layer = starts_[item.layer];
        if (isTurned_) {
            box.x = item.centre - item.breadth / 2;
            box.y = layer.begin;
        } else {
            box.x = layer.begin;
            box.y = item.centre - item.breadth / 2;
            box.width = layer.depth;
        }
    }

    void MakeLines() {
        const GraphLines lines(layout_, starts_, isTurned_);
        for (size_t i = 0; i < edges_.size(); ++i) {
            if (layout_.routes[i].empty()) {
                continue;
            }
            const GraphEdge& edge = edges_[i];
            SceneLine line = lines.Make(layout_.routes[i], edge.isBack);
            line.toolTip = vertices_[edge.to].name + " after " + vertices_[edge.from].name;
            line.isOnCycle = edge.isOnCycle;
            line.isMissing = vertices_[edge.from].node == nullptr;
            scene_.lines.push_back(std::move(line));
        }
        // Red lines are drawn last, above the others.
        std::stable_sort(scene_.lines.begin(), scene_.lines.end(),
                         [](const SceneLine& one, const SceneLine& other) {
                             return std::pair(one.isOnCycle, one.isMissing) <
                                    std::pair(other.isOnCycle, other.isMissing);
                         });
    }

    // The services without any line, as a grid below the others.
    void PlaceSingles() {
        double widest = 0;
        size_t count = 0;
        for (size_t vertex = 0; vertex < vertices_.size(); ++vertex) {
            widest = isSingle_[vertex] ? std::max(widest, LabelWidth(vertex)) : widest;
            count += isSingle_[vertex] ? 1 : 0;
        }
        if (count == 0) {
            return;
        }
        const double step = widest + GRID_GAP;
        const double room = std::max(scene_.width, GRID_WIDTH_MIN) + GRID_GAP;
        const size_t columns = std::clamp<size_t>(static_cast<size_t>(room / step), 1, count);
        const size_t rows = (count + columns - 1) / columns;
        const double top = scene_.height > 0 ? scene_.height + 2 * BOX_HEIGHT : 0;
        size_t index = 0;
        for (size_t vertex = 0; vertex < vertices_.size(); ++vertex) {
            if (isSingle_[vertex]) {
                SceneBox& box = scene_.boxes[vertex];
                const size_t column = index / rows;
                box.x = static_cast<double>(column) * step;
                box.y = top + static_cast<double>(index % rows) * (BOX_HEIGHT + GRID_GAP);
                box.width = widest;
                ++index;
            }
        }
        const size_t used = (count + rows - 1) / rows;
        scene_.width = std::max(scene_.width, static_cast<double>(used) * step - GRID_GAP);
        scene_.height = top + static_cast<double>(rows) * (BOX_HEIGHT + GRID_GAP) - GRID_GAP;
    }

    const Graph& graph_;
    std::vector<Vertex> vertices_;
    std::map<std::string, size_t> indexOf_;
    std::vector<GraphEdge> edges_;
    std::vector<bool> isSingle_;
    GraphLayout layout_;
    std::vector<LayerSpan> starts_;
    bool isTurned_ = false;  // the layers follow each other from the top to the bottom
    Scene scene_;
};

}  // namespace

Scene MakeScene(const Graph& graph) {
    return SceneMaker(graph).Run();
}

}  // namespace ProcMgr::Pmctl
