// The order of the items in the layers.
#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "pmctl/graph_layout.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr int SWEEPS = 24;

using Layers = std::vector<std::vector<size_t>>;

// The place of each item in its layer.
std::vector<size_t> PlacesOf(const GraphLayout& layout) {
    std::vector<size_t> places(layout.items.size());
    for (const std::vector<size_t>& layer : layout.layers) {
        for (size_t i = 0; i < layer.size(); ++i) {
            places[layer[i]] = i;
        }
    }
    return places;
}

// The crossings of the lines between a layer and the next one: the pairs of lines whose ends are in
// opposite orders, counted with a tree of partial sums over the places of the next layer.
size_t CrossingsAfter(const GraphLayout& layout, size_t layer, const std::vector<size_t>& places) {
    const size_t size = layout.layers[layer + 1].size();
    std::vector<size_t> sums(size + 1);
    size_t lines = 0;
    size_t crossings = 0;
    for (const size_t item : layout.layers[layer]) {
        std::vector<size_t> ends;
        for (const size_t next : layout.items[item].after) {
            ends.push_back(places[next]);
        }
        for (const size_t end : ends) {
            size_t before = 0;  // lines so far that end at `end` or before it
            for (size_t i = end + 1; i > 0; i -= i & (~i + 1)) {
                before += sums[i];
            }
            crossings += lines - before;
        }
        for (const size_t end : ends) {
            for (size_t i = end + 1; i <= size; i += i & (~i + 1)) {
                ++sums[i];
            }
        }
        lines += ends.size();
    }
    return crossings;
}

size_t Crossings(const GraphLayout& layout) {
    const std::vector<size_t> places = PlacesOf(layout);
    size_t crossings = 0;
    for (size_t layer = 0; layer + 1 < layout.layers.size(); ++layer) {
        crossings += CrossingsAfter(layout, layer, places);
    }
    return crossings;
}

// Sorts one layer by the mean place of the neighbours; an item without neighbours keeps its place.
void SortLayer(GraphLayout& layout, std::vector<size_t>& layer, bool isForward,
               std::vector<size_t>& places) {
    std::vector<std::pair<double, size_t>> order;
    for (size_t i = 0; i < layer.size(); ++i) {
        const LayoutItem& item = layout.items[layer[i]];
        const std::vector<size_t>& neighbours = isForward ? item.before : item.after;
        double sum = 0;
        for (const size_t neighbour : neighbours) {
            sum += static_cast<double>(places[neighbour]);
        }
        const double mean = neighbours.empty() ? static_cast<double>(i)
                                               : sum / static_cast<double>(neighbours.size());
        order.emplace_back(mean, layer[i]);
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const auto& one, const auto& other) { return one.first < other.first; });
    for (size_t i = 0; i < layer.size(); ++i) {
        layer[i] = order[i].second;
        places[layer[i]] = i;
    }
}

void Sweep(GraphLayout& layout, bool isForward) {
    std::vector<size_t> places = PlacesOf(layout);
    const size_t count = layout.layers.size();
    for (size_t i = 1; i < count; ++i) {
        SortLayer(layout, layout.layers[isForward ? i : count - 1 - i], isForward, places);
    }
}

// The items as they are reached from the first layer, depth first.
class LayoutWalk {
public:
    explicit LayoutWalk(const GraphLayout& layout)
        : layout_(layout), ordered_(layout.layers.size()), seen_(layout.items.size()) {
        for (const std::vector<size_t>& layer : layout.layers) {
            for (const size_t start : layer) {
                From(start);
            }
        }
    }

    Layers TakeLayers() { return std::move(ordered_); }

private:
    void From(size_t start) {
        open_.push_back(start);
        while (!open_.empty()) {
            const size_t item = open_.back();
            open_.pop_back();
            if (!seen_[item]) {
                seen_[item] = true;
                ordered_[layout_.items[item].layer].push_back(item);
                const std::vector<size_t>& after = layout_.items[item].after;
                open_.insert(open_.end(), after.rbegin(), after.rend());
            }
        }
    }

    const GraphLayout& layout_;
    Layers ordered_;
    std::vector<bool> seen_;
    std::vector<size_t> open_;
};

// The first order: what belongs together begins together.
void OrderByWalk(GraphLayout& layout) {
    layout.layers = LayoutWalk(layout).TakeLayers();
}

}  // namespace

void OrderItems(GraphLayout& layout) {
    OrderByWalk(layout);
    Layers best = layout.layers;
    size_t fewest = Crossings(layout);
    for (int sweep = 0; sweep < SWEEPS && fewest > 0; ++sweep) {
        Sweep(layout, sweep % 2 == 0);
        const size_t crossings = Crossings(layout);
        if (crossings < fewest) {
            fewest = crossings;
            best = layout.layers;
        }
    }
    layout.layers = std::move(best);
}

}  // namespace ProcMgr::Pmctl
