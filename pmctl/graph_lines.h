// The lines of the picture of a graph, from the places of its items.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "pmctl/graph_layout.h"
#include "pmctl/graph_scene.h"

namespace ProcMgr::Pmctl {

// Where a layer lies on the main axis.
struct LayerSpan {
    double begin = 0;
    double depth = 0;
};

// The arguments of the constructor must outlive the object.
class GraphLines {
public:
    // `isTurned`: the main axis leads from the top to the bottom, else from the left to the right.
    GraphLines(const GraphLayout& layout, const std::vector<LayerSpan>& spans, bool isTurned);

    // The line over the items of a route, smooth between the layers and straight inside of them.
    // `isBack`: its arrow head is at the begin of the route. Sets the paths only.
    SceneLine Make(const std::vector<size_t>& route, bool isBack) const;

private:
    struct Point {
        double along = 0;  // the main axis
        double across = 0;
    };

    void SpreadEntries();
    double EntryOf(size_t item, size_t before) const;
    double EndOf(size_t item) const;
    std::string ToText(const Point& point) const;
    std::string Curve(const Point& from, const Point& to) const;
    std::string Head(const Point& tip, double direction) const;

    const GraphLayout& layout_;
    const std::vector<LayerSpan>& spans_;
    const bool isTurned_;
    // How far from the middle of an item the line from an item before it ends.
    std::vector<std::map<size_t, double>> entries_;
};

}  // namespace ProcMgr::Pmctl
