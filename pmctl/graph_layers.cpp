#include "pmctl/graph_layers.h"

#include <algorithm>

namespace ProcMgr::Pmctl {
namespace {

constexpr size_t NONE = static_cast<size_t>(-1);

// One depth-first walk: the components of vertices that reach each other (Tarjan), the edges that
// lead back to a vertex of the present path, and the order in which the vertices are done. The walk
// keeps its path itself: a long chain must not fill the stack of the thread.
class Walk {
public:
    Walk(size_t vertices, std::vector<GraphEdge>& edges)
        : edges_(edges), out_(vertices), state_(vertices) {
        for (size_t i = 0; i < edges.size(); ++i) {
            out_[edges[i].from].push_back(i);
        }
        for (size_t vertex = 0; vertex < vertices; ++vertex) {
            if (state_[vertex].number == NONE) {
                From(vertex);
            }
        }
        for (GraphEdge& edge : edges) {
            edge.isOnCycle = state_[edge.from].component == state_[edge.to].component &&
                             (edge.from != edge.to || edge.isBack);
        }
    }

    std::vector<size_t> Layers() const {
        std::vector<size_t> layers(out_.size());
        for (auto vertex = done_.rbegin(); vertex != done_.rend(); ++vertex) {
            for (const size_t edge : out_[*vertex]) {
                if (!edges_[edge].isBack) {
                    size_t& layer = layers[edges_[edge].to];
                    layer = std::max(layer, layers[*vertex] + 1);
                }
            }
        }
        return layers;
    }

private:
    struct Vertex {
        size_t number = NONE;  // in the order of the walk
        size_t lowest = NONE;  // the lowest number that is reached from it
        size_t component = NONE;
        size_t next = 0;  // the next of its edges
        bool isOnPath = false;
    };

    void Enter(size_t vertex) {
        state_[vertex].number = state_[vertex].lowest = count_++;
        state_[vertex].isOnPath = true;
        path_.push_back(vertex);
        open_.push_back(vertex);
    }

    void From(size_t start) {
        Enter(start);
        while (!path_.empty()) {
            const size_t at = path_.back();
            if (state_[at].next == out_[at].size()) {
                Leave(at);
            } else {
                Take(at, edges_[out_[at][state_[at].next++]]);
            }
        }
    }

    void Take(size_t at, GraphEdge& edge) {
        Vertex& to = state_[edge.to];
        if (to.number == NONE) {
            Enter(edge.to);
            return;
        }
        edge.isBack = to.isOnPath;
        if (to.component == NONE) {
            state_[at].lowest = std::min(state_[at].lowest, to.number);
        }
    }

    void Leave(size_t vertex) {
        path_.pop_back();
        state_[vertex].isOnPath = false;
        done_.push_back(vertex);
        if (!path_.empty()) {
            size_t& lowest = state_[path_.back()].lowest;
            lowest = std::min(lowest, state_[vertex].lowest);
        }
        if (state_[vertex].lowest != state_[vertex].number) {
            return;
        }
        for (size_t member = NONE; member != vertex;) {
            member = open_.back();
            open_.pop_back();
            state_[member].component = vertex;
        }
    }

    std::vector<GraphEdge>& edges_;
    std::vector<std::vector<size_t>> out_;  // the edges of each vertex
    std::vector<Vertex> state_;
    std::vector<size_t> path_;
    std::vector<size_t> open_;  // vertices whose component is not complete
    std::vector<size_t> done_;
    size_t count_ = 0;
};

}  // namespace

std::vector<size_t> FindLayers(size_t vertices, std::vector<GraphEdge>& edges) {
    return Walk(vertices, edges).Layers();
}

}  // namespace ProcMgr::Pmctl
