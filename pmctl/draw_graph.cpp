// The picture of a dependency graph.
#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <vector>

#include "pmctl/drawing.h"
#include "pmctl/graph_scene.h"
#include "pmctl/svg.h"

namespace ProcMgr::Pmctl {
namespace {

constexpr double MARGIN = 24;
constexpr double HEADING_BASE = 36;
constexpr double SUBTITLE_BASE = 56;
constexpr double LEGEND_TOP = 70;
constexpr double LEGEND_ROW = 24;
constexpr double SWATCH_WIDTH = 22;
constexpr double SWATCH_HEIGHT = 14;
constexpr double TEXT_DROP = 4.3;  // from the middle of a box to the base line
constexpr double WIDTH_MIN = 420;

struct LegendEntry {
    std::string classes;
    std::string text;
    double Width() const { return SWATCH_WIDTH + 6 + TextWidth(text) + 20; }
};

std::string LowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::vector<LegendEntry> LegendOf(const Graph& graph, const Scene& scene) {
    std::set<std::string> states;
    for (const GraphNode& node : graph.nodes) {
        states.insert(node.state);
    }
    std::vector<LegendEntry> legend;
    for (const std::string& state : states) {
        const std::string text = state.empty() ? "service" : LowerCase(state);
        legend.push_back({std::string(StateClass(state)), text});
    }
    if (scene.hasMissing) {
        legend.push_back({"missing", "missing"});
    }
    if (scene.hasCycle) {
        legend.push_back({"s-none cycle", "on a dependency cycle"});
    }
    return legend;
}

std::string Subtitle(const Scene& scene) {
    return std::to_string(scene.services) + (scene.services == 1 ? " service, " : " services, ") +
           std::to_string(scene.dependencies) +
           (scene.dependencies == 1 ? " dependency" : " dependencies") +
           "; an arrow leads to the service that is started after the other";
}

// The width of the page: the scene, and room for the texts above it.
double PageWidth(const Graph& graph, const Scene& scene) {
    const double texts =
        std::max(TextWidth(graph.title, SVG_HEADING_SIZE), TextWidth(Subtitle(scene)));
    return std::max({scene.width, texts, WIDTH_MIN}) + 2 * MARGIN;
}

// Draws the legend, or measures it without a picture. Returns its height.
double Legend(const std::vector<LegendEntry>& legend, double width, SvgPicture* picture) {
    double x = MARGIN;
    double y = LEGEND_TOP;
    for (const LegendEntry& entry : legend) {
        if (x > MARGIN && x + entry.Width() > width - MARGIN) {
            x = MARGIN;
            y += LEGEND_ROW;
        }
        if (picture != nullptr) {
            picture->Box(x, y, SWATCH_WIDTH, SWATCH_HEIGHT, entry.classes, 3);
            picture->Text(x + SWATCH_WIDTH + 6, y + SWATCH_HEIGHT / 2 + TEXT_DROP, entry.text,
                          "quiet");
        }
        x += entry.Width();
    }
    return y + LEGEND_ROW - LEGEND_TOP;
}

void DrawLine(const SceneLine& line, SvgPicture& picture) {
    const bool isBad = line.isOnCycle || line.isMissing;
    picture.BeginGroup("", line.toolTip);
    picture.Path(line.path,
                 std::string("edge") + (isBad ? " bad" : "") + (line.isMissing ? " dashed" : ""));
    picture.Path(line.head, isBad ? "mark bad" : "mark");
    picture.EndGroup();
}

void DrawBox(const SceneBox& box, SvgPicture& picture) {
    picture.BeginGroup("", box.toolTip);
    if (box.isLoop) {
        const double right = box.x + box.width;
        picture.Path("M" + SvgNumber(right - 22) + ' ' + SvgNumber(box.y) + "c-4 -13 16 -13 12 0",
                     "edge bad");
    }
    picture.Box(box.x, box.y, box.width, box.height, box.classes);
    picture.Text(box.x + box.width / 2, box.y + box.height / 2 + TEXT_DROP, box.label, "middle");
    picture.EndGroup();
}

}  // namespace

std::string DrawGraph(const Graph& graph, SvgKind kind) {
    const Scene scene = MakeScene(graph);
    const std::vector<LegendEntry> legend = LegendOf(graph, scene);
    const double width = PageWidth(graph, scene);
    const double top = LEGEND_TOP + Legend(legend, width, nullptr) + MARGIN / 2;
    SvgPicture picture(kind, width, top + scene.height + MARGIN, graph.title);
    picture.Text(MARGIN, HEADING_BASE, graph.title, "heading");
    if (scene.isTooLarge) {
        picture.Text(MARGIN, SUBTITLE_BASE, "There are too many services for a picture.", "quiet");
        return picture.Finish();
    }
    picture.Text(MARGIN, SUBTITLE_BASE, Subtitle(scene), "quiet");
    Legend(legend, width, &picture);
    picture.BeginMovedGroup(MARGIN, top);
    for (const SceneLine& line : scene.lines) {
        DrawLine(line, picture);
    }
    for (const SceneBox& box : scene.boxes) {
        DrawBox(box, picture);
    }
    picture.EndGroup();
    return picture.Finish();
}

}  // namespace ProcMgr::Pmctl
