// The places of the items along the cross axis.
#include <algorithm>
#include <cstddef>
#include <vector>

#include "pmctl/graph_layout.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr int SWEEPS = 16;
constexpr double GAP = 12;      // between two boxes
constexpr double BEND_GAP = 8;  // beside a bend

bool IsBend(const LayoutItem& item) {
    return item.vertex == LayoutItem::BEND;
}

// The least distance of the centres of neighbours in a layer.
double Distance(const LayoutItem& one, const LayoutItem& other) {
    const double gap = IsBend(one) || IsBend(other) ? BEND_GAP : GAP;
    return (one.breadth + other.breadth) / 2 + gap;
}

// Lines between bends are long and have to be straight before all others.
double WeightOf(const LayoutItem& one, const LayoutItem& other) {
    return IsBend(one) && IsBend(other) ? 8 : IsBend(one) || IsBend(other) ? 2 : 1;
}

// Items that touch each other: they are moved together.
struct Block {
    double weight = 0;
    double sum = 0;  // weight times wanted place
    size_t size = 0;
    double Place() const { return sum / weight; }
};

// Gives the items of a layer the places nearest to the wanted ones, in the sense of least squares,
// that keep their order and distances. `wanted` and `weights` are in the order of the layer.
void PlaceLayer(GraphLayout& layout, const std::vector<size_t>& layer,
                const std::vector<double>& wanted, const std::vector<double>& weights) {
    std::vector<double> offsets(layer.size());  // the places when all touch each other
    for (size_t i = 1; i < layer.size(); ++i) {
        offsets[i] = offsets[i - 1] + Distance(layout.items[layer[i - 1]], layout.items[layer[i]]);
    }
    std::vector<Block> blocks;
    for (size_t i = 0; i < layer.size(); ++i) {
        Block block{weights[i], weights[i] * (wanted[i] - offsets[i]), 1};
        while (!blocks.empty() && blocks.back().Place() >= block.Place()) {
            block.weight += blocks.back().weight;
            block.sum += blocks.back().sum;
            block.size += blocks.back().size;
            blocks.pop_back();
        }
        blocks.push_back(block);
    }
    size_t i = 0;
    for (const Block& block : blocks) {
        for (const size_t end = i + block.size; i < end; ++i) {
            layout.items[layer[i]].centre = block.Place() + offsets[i];
        }
    }
}

enum class Side { BEFORE, AFTER, BOTH };

void MoveToNeighbours(GraphLayout& layout, const std::vector<size_t>& layer, Side side) {
    std::vector<double> wanted;
    std::vector<double> weights;
    for (const size_t index : layer) {
        const LayoutItem& item = layout.items[index];
        double weight = 0;
        double sum = 0;
        const auto add = [&](const std::vector<size_t>& neighbours) {
            for (const size_t neighbour : neighbours) {
                const double part = WeightOf(item, layout.items[neighbour]);
                weight += part;
                sum += part * layout.items[neighbour].centre;
            }
        };
        if (side != Side::AFTER) {
            add(item.before);
        }
        if (side != Side::BEFORE) {
            add(item.after);
        }
        constexpr double LOOSE = 0.01;  // an item without neighbours stays, unless it is in the way
        wanted.push_back(weight > 0 ? sum / weight : item.centre);
        weights.push_back(weight > 0 ? weight : LOOSE);
    }
    PlaceLayer(layout, layer, wanted, weights);
}

// The layers one below the other, each centred.
void PlaceFirst(GraphLayout& layout) {
    for (const std::vector<size_t>& layer : layout.layers) {
        double place = 0;
        for (size_t i = 0; i < layer.size(); ++i) {
            LayoutItem& item = layout.items[layer[i]];
            place += i == 0 ? 0 : Distance(layout.items[layer[i - 1]], item);
            item.centre = place;
        }
        for (const size_t index : layer) {
            layout.items[index].centre -= place / 2;
        }
    }
}

// Moves everything so that the first box begins at 0.
void MoveToZero(GraphLayout& layout) {
    double first = 0;
    bool isAny = false;
    for (const std::vector<size_t>& layer : layout.layers) {
        for (const size_t index : layer) {
            const LayoutItem& item = layout.items[index];
            const double begin = item.centre - item.breadth / 2;
            first = isAny ? std::min(first, begin) : begin;
            isAny = true;
        }
    }
    for (LayoutItem& item : layout.items) {
        item.centre -= first;
    }
}

}  // namespace

void PlaceItems(GraphLayout& layout) {
    PlaceFirst(layout);
    for (int sweep = 0; sweep < SWEEPS; ++sweep) {
        const bool isForward = sweep % 2 == 0;
        const bool isLast = sweep >= SWEEPS - 4;
        for (size_t i = 0; i < layout.layers.size(); ++i) {
            const size_t layer = isForward ? i : layout.layers.size() - 1 - i;
            MoveToNeighbours(layout, layout.layers[layer],
                             isLast      ? Side::BOTH
                             : isForward ? Side::BEFORE
                                         : Side::AFTER);
        }
    }
    MoveToZero(layout);
}

}  // namespace ProcMgr::Pmctl
