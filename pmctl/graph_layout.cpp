#include "pmctl/graph_layout.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t BENDS_MAX = 60000;
constexpr double BEND_BREADTH = 2;

// Splits each layer with too many vertices into several. Those that others wait for come last.
void SplitLayers(std::vector<size_t>& layers, const std::vector<GraphEdge>& edges,
                 const std::vector<bool>& left, size_t sizeMax) {
    std::vector<bool> isEnd(layers.size(), true);
    for (const GraphEdge& edge : edges) {
        isEnd[edge.from] = false;
    }
    std::map<size_t, std::vector<size_t>> members;
    for (size_t vertex = 0; vertex < layers.size(); ++vertex) {
        if (!left[vertex]) {
            members[layers[vertex]].push_back(vertex);
        }
    }
    size_t layer = 0;
    for (auto& [before, vertices] : members) {
        std::stable_partition(vertices.begin(), vertices.end(),
                              [&isEnd](size_t vertex) { return isEnd[vertex]; });
        const size_t parts = (vertices.size() + sizeMax - 1) / sizeMax;
        const size_t size = (vertices.size() + parts - 1) / parts;
        for (size_t i = 0; i < vertices.size(); ++i) {
            layers[vertices[i]] = layer + i / size;
        }
        layer += parts;
    }
}

class Builder {
public:
    Builder(const std::vector<size_t>& layers, const std::vector<GraphEdge>& edges)
        : layers_(layers), edges_(edges) {}

    GraphLayout Run(const std::vector<double>& breadths, const std::vector<bool>& left) {
        for (size_t vertex = 0; vertex < layers_.size(); ++vertex) {
            layout_.items.push_back({vertex, layers_[vertex], breadths[vertex]});
            if (!left[vertex]) {
                AddToLayer(vertex);
            }
        }
        for (const GraphEdge& edge : edges_) {
            layout_.routes.push_back(RouteOf(edge));
            if (layout_.items.size() > layers_.size() + BENDS_MAX) {
                GraphLayout none;
                none.isTooLarge = true;
                return none;
            }
        }
        return std::move(layout_);
    }

private:
    void AddToLayer(size_t item) {
        const size_t layer = layout_.items[item].layer;
        if (layer >= layout_.layers.size()) {
            layout_.layers.resize(layer + 1);
        }
        layout_.layers[layer].push_back(item);
    }

    // The bend of the lines that begin at `from` and are of that direction.
    size_t BendOf(size_t from, bool isBack, size_t layer) {
        const auto [found, isNew] = bends_.try_emplace({from, isBack, layer}, layout_.items.size());
        if (isNew) {
            layout_.items.push_back({LayoutItem::BEND, layer, BEND_BREADTH});
            AddToLayer(found->second);
        }
        return found->second;
    }

    std::vector<size_t> RouteOf(const GraphEdge& edge) {
        if (edge.from == edge.to) {
            return {};
        }
        const size_t first = edge.isBack ? edge.to : edge.from;
        const size_t last = edge.isBack ? edge.from : edge.to;
        std::vector<size_t> route{first};
        for (size_t layer = layers_[first] + 1; layer < layers_[last]; ++layer) {
            route.push_back(BendOf(first, edge.isBack, layer));
        }
        route.push_back(last);
        for (size_t i = 1; i < route.size(); ++i) {
            if (lines_.emplace(route[i - 1], route[i]).second) {
                layout_.items[route[i - 1]].after.push_back(route[i]);
                layout_.items[route[i]].before.push_back(route[i - 1]);
            }
        }
        return route;
    }

    struct BendKey {
        size_t from;
        bool isBack;
        size_t layer;
        auto operator<=>(const BendKey&) const = default;
    };

    const std::vector<size_t>& layers_;
    const std::vector<GraphEdge>& edges_;
    GraphLayout layout_;
    std::map<BendKey, size_t> bends_;
    std::set<std::pair<size_t, size_t>> lines_;
};

}  // namespace

GraphLayout MakeLayout(std::vector<size_t> layers, const std::vector<GraphEdge>& edges,
                       const std::vector<double>& breadths, const std::vector<bool>& left,
                       size_t sizeMax) {
    SplitLayers(layers, edges, left, sizeMax);
    return Builder(layers, edges).Run(breadths, left);
}

}  // namespace ProcMgr::Pmctl
