// The boxes and lines of the picture of a dependency graph, with their places in pixels.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pmctl/drawing.h"

namespace ProcMgr::Pmctl {

struct SceneBox {
    std::string name;
    std::string label;    // the name, shortened when it is long
    std::string classes;  // of the style sheet
    std::string toolTip;
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    bool isLoop = false;  // it depends on itself
};

struct SceneLine {
    std::string path;  // commands of an SVG path
    std::string head;  // the arrow head, as another path
    std::string toolTip;
    bool isOnCycle = false;
    bool isMissing = false;  // it begins at a box that is missing
};

struct Scene {
    std::vector<SceneBox> boxes;
    std::vector<SceneLine> lines;
    double width = 0;
    double height = 0;
    size_t services = 0;
    size_t dependencies = 0;
    bool hasCycle = false;
    bool hasMissing = false;
    bool isTooLarge = false;  // nothing is drawn
};

Scene MakeScene(const Graph& graph);

}  // namespace ProcMgr::Pmctl
