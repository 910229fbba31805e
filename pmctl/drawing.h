// Pictures as SVG text: the time line of a start-up and the graph of dependencies. A picture is
// complete in itself: no script, no font and no file from elsewhere. It follows the light or dark
// scheme of the viewer by a media query, and all names in it are escaped. Pure functions.
#pragma once

#include <string>
#include <vector>

namespace ProcMgr::Pmctl {

// STANDALONE: a file of its own. EMBEDDED: an element inside an HTML page.
enum class SvgKind { STANDALONE, EMBEDDED };

// One service of a time line. Times are milliseconds from the begin of the picture; a negative time
// has not come.
struct TimelineRow {
    std::string name;
    double waiting = 0;  // the start-up knows the service
    double started = -1;
    double ready = -1;
    double ended =
        -1;  // the start has failed or the process has ended before the end of the picture
    bool isCritical = false;
    std::string note;  // shown as a tool tip, for example the reason of a failure
};

struct Timeline {
    std::string title;
    double end = 0;                 // milliseconds
    std::vector<TimelineRow> rows;  // from the top
};

std::string DrawTimeline(const Timeline& timeline, SvgKind kind);

// One service of a graph.
struct GraphNode {
    std::string name;
    std::vector<std::string> depends;  // names that are not in the graph are drawn as missing
    std::string state;  // selects the colour: a state of the daemon, "" without one, "error"
    std::string note;
};

struct Graph {
    std::string title;
    std::vector<GraphNode> nodes;
};

std::string DrawGraph(const Graph& graph, SvgKind kind);

}  // namespace ProcMgr::Pmctl
