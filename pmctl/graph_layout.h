// The places of boxes and lines of a layered drawing. The layers follow each other along the main
// axis, the boxes of a layer along the cross axis. An edge over several layers gets a bend, an item
// without a box, in each layer between, so that lines do not run through boxes. Edges with the same
// begin share their bends. Pure functions.
#pragma once

#include <cstddef>
#include <vector>

#include "pmctl/graph_layers.h"

namespace ProcMgr::Pmctl {

struct LayoutItem {
    static constexpr size_t BEND = static_cast<size_t>(-1);
    size_t vertex = BEND;
    size_t layer = 0;
    double breadth = 0;  // along the cross axis
    double centre = 0;   // along the cross axis, from 0
    // The items of the layers before and after that a line leads to.
    std::vector<size_t> before = {};
    std::vector<size_t> after = {};
};

struct GraphLayout {
    std::vector<LayoutItem> items;            // first those of the vertices, then the bends
    std::vector<std::vector<size_t>> layers;  // the items of each layer in their order
    // For each edge the items that its line leads over, in the order of the layers; empty for
    // loops.
    std::vector<std::vector<size_t>> routes;
    bool isTooLarge = false;  // there would be too many bends; nothing else is set
};

// `layers`: of each vertex; `breadths`: of the box of each vertex. Vertices of `left` are left out.
// Layers with more than `sizeMax` vertices are split.
GraphLayout MakeLayout(std::vector<size_t> layers, const std::vector<GraphEdge>& edges,
                       const std::vector<double>& breadths, const std::vector<bool>& left,
                       size_t sizeMax);

// Orders the items of each layer so that few lines cross, by the barycentres of their neighbours.
void OrderItems(GraphLayout& layout);

// Sets the centres: in the order of the items, without overlaps, near the neighbours.
void PlaceItems(GraphLayout& layout);

}  // namespace ProcMgr::Pmctl
