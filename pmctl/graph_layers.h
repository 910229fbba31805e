// The layers of a directed graph: every edge leads to a later layer, except those that close a
// cycle. Pure; the time grows with the number of vertices and edges.
#pragma once

#include <cstddef>
#include <vector>

namespace ProcMgr::Pmctl {

struct GraphEdge {
    size_t from = 0;
    size_t to = 0;
    bool isBack = false;     // it leads to the same or an earlier layer, and closes a cycle
    bool isOnCycle = false;  // both ends are on the same cycle, or the edge is a loop
};

// Sets the marks of the edges, and returns the layer of each vertex, counted from 0: the number of
// vertices on the longest way to it.
std::vector<size_t> FindLayers(size_t vertices, std::vector<GraphEdge>& edges);

}  // namespace ProcMgr::Pmctl
