// The picture of a dependency graph: well-formed, complete, and nothing on top of something else.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sstream>

#include "pmctl/drawing.h"
#include "pmctl/graph_scene.h"
#include "pmctl/near_word.h"
#include "pmctl/svg.h"

namespace ProcMgr::Pmctl {
namespace {

// A graph of services that depend on earlier ones.
Graph RandomGraph(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    Graph graph{"Services of /etc/platform.yaml", {}};
    for (size_t i = 0; i < size; ++i) {
        GraphNode node{"service-" + std::to_string(i), {}, i % 3 == 0 ? "RUNNING" : "", ""};
        const size_t count = i < 5 ? 0 : random() % 4;
        for (size_t k = 0; k < count; ++k) {
            const size_t near = std::min<size_t>(i, 5 + size / 5);
            node.depends.push_back("service-" + std::to_string(i - 1 - random() % near));
        }
        graph.nodes.push_back(node);
    }
    return graph;
}

// The name of the first element that is not closed, or what else is no XML; empty for XML.
std::string XmlFault(const std::string& text) {
    std::vector<std::string> open;
    for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
        const size_t end = text.find('>', at);
        if (end == std::string::npos) {
            return "an open tag";
        }
        const std::string tag = text.substr(at + 1, end - at - 1);
        const std::string name = tag.substr(0, tag.find_first_of(" \n/", tag.front() == '/'));
        if (std::count(tag.begin(), tag.end(), '"') % 2 != 0) {
            return tag;
        }
        if (tag.front() == '/') {
            if (open.empty() || "/" + open.back() != tag) {
                return tag;
            }
            open.pop_back();
        } else if (tag.front() != '?' && tag.back() != '/') {
            open.push_back(name);
        }
    }
    for (size_t at = text.find('&'); at != std::string::npos; at = text.find('&', at + 1)) {
        const std::string entity = text.substr(at, text.find(';', at) - at);
        if (entity != "&amp" && entity != "&lt" && entity != "&gt" && entity != "&quot" &&
            entity != "&#39") {
            return entity;
        }
    }
    return open.empty() ? "" : open.back();
}

size_t Count(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

bool IsInside(double x, double y, const SceneBox& box) {
    return x > box.x + 0.1 && x < box.x + box.width - 0.1 && y > box.y + 0.1 &&
           y < box.y + box.height - 0.1;
}

// The points of a path of M, L and C commands.
std::vector<std::pair<double, double>> PointsOf(std::string path) {
    for (char& c : path) {
        c = c == ',' ? ' ' : c;
    }
    std::vector<std::pair<double, double>> points;
    std::istringstream text(path);
    char command = 0;
    while (text >> command) {
        double x[4]{};
        double y[4]{};
        const int count = command == 'C' ? 3 : 1;
        for (int i = 1; i <= count; ++i) {
            text >> x[i] >> y[i];
        }
        x[0] = points.empty() ? x[1] : points.back().first;
        y[0] = points.empty() ? y[1] : points.back().second;
        for (double t = 0; t <= 1; t += 0.125) {
            const double s = 1 - t;
            const auto at = [&](const double(&p)[4]) {
                return count == 1 ? s * p[0] + t * p[1]
                                  : s * s * s * p[0] + 3 * s * s * t * p[1] + 3 * s * t * t * p[2] +
                                        t * t * t * p[3];
            };
            points.emplace_back(at(x), at(y));
        }
        points.emplace_back(x[count], y[count]);
    }
    return points;
}

void ExpectBoxesApart(const Scene& scene) {
    for (const SceneBox& box : scene.boxes) {
        EXPECT_LE(TextWidth(box.label), box.width) << box.name;
        EXPECT_GE(box.x, -0.1);
        EXPECT_LE(box.x + box.width, scene.width + 0.1);
        EXPECT_LE(box.y + box.height, scene.height + 0.1);
        for (const SceneBox& other : scene.boxes) {
            if (&box < &other) {
                EXPECT_TRUE(box.x + box.width <= other.x || other.x + other.width <= box.x ||
                            box.y + box.height <= other.y || other.y + other.height <= box.y)
                    << box.name << " and " << other.name;
            }
        }
    }
}

void ExpectNothingOverlaps(const Graph& graph) {
    const Scene scene = MakeScene(graph);
    ExpectBoxesApart(scene);
    for (const SceneLine& line : scene.lines) {
        for (const auto& [x, y] : PointsOf(line.path)) {
            const auto crossed =
                std::find_if(scene.boxes.begin(), scene.boxes.end(),
                             [x = x, y = y](const SceneBox& box) { return IsInside(x, y, box); });
            ASSERT_EQ(crossed, scene.boxes.end()) << line.toolTip << " runs through a box";
        }
    }
}

TEST(DrawGraph, NothingIsOnTopOfSomethingElse) {
    for (const size_t size : {1U, 10U, 100U, 200U}) {
        for (unsigned seed = 1; seed <= 2; ++seed) {
            SCOPED_TRACE(size);
            ExpectNothingOverlaps(RandomGraph(size, seed));
        }
    }
    Graph chain{"chain", {}};
    Graph star{"star", {}};
    for (int i = 0; i < 60; ++i) {
        const std::string name = "a-service-with-a-long-name-" + std::to_string(i);
        const std::string last = "a-service-with-a-long-name-" + std::to_string(i - 1);
        chain.nodes.push_back(
            {name, i > 0 ? std::vector{last} : std::vector<std::string>(), "", ""});
        star.nodes.push_back({name, {"centre"}, "", ""});
    }
    chain.nodes.front().depends = {"a-service-with-a-long-name-59"};  // a cycle of all
    chain.nodes[30].depends.push_back("a-service-with-a-long-name-3");
    ExpectNothingOverlaps(chain);
    ExpectNothingOverlaps(star);
    EXPECT_LT(MakeScene(chain).width, 1500) << "a long chain is drawn from the top";
}

TEST(DrawGraph, IsXmlWithEachNameOnce) {
    Graph graph = RandomGraph(200, 7);
    graph.nodes[9].depends = {"missing-one"};
    graph.nodes[20].depends = {"service-21"};
    graph.nodes[21].depends = {"service-20", "service-21"};
    graph.nodes[3].note = "<b>&amp;\"'\n\x01\xff ]]>";
    graph.title = "<script>alert(1)</script>";
    for (const SvgKind kind : {SvgKind::STANDALONE, SvgKind::EMBEDDED}) {
        const std::string svg = DrawGraph(graph, kind);
        EXPECT_EQ(XmlFault(svg), "");
        EXPECT_EQ(svg.find("<script"), std::string::npos);
        EXPECT_EQ(svg.find('\x01'), std::string::npos);
        EXPECT_EQ(svg.find('\xff'), std::string::npos);
        for (const GraphNode& node : graph.nodes) {
            EXPECT_EQ(Count(svg, ">" + node.name + "</text>"), 1U) << node.name;
        }
        EXPECT_EQ(Count(svg, ">missing-one</text>"), 1U);
        EXPECT_EQ(Count(svg, ">missing</text>"), 1U) << "the legend";
        EXPECT_EQ(Count(svg, ">on a dependency cycle</text>"), 1U);
    }
    EXPECT_EQ(XmlFault(DrawGraph(RandomGraph(5000, 1), SvgKind::STANDALONE)), "");
    EXPECT_EQ(XmlFault(DrawGraph({}, SvgKind::STANDALONE)), "");
}

TEST(SvgTexts, WidthsAndEscapes) {
    EXPECT_EQ(EscapeXml("a<b>&\"'\x01\xc3\xa4\xff\xed\xa0\x80"),
              "a&lt;b&gt;&amp;&quot;&#39;\xef\xbf\xbd\xc3\xa4\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"
              "\xef\xbf\xbd");
    EXPECT_EQ(ShortenedText("abcdefghij", 10), "abcdefghij");
    EXPECT_EQ(ShortenedText("abcdefghijk", 10), "abcde…hijk");
    EXPECT_EQ(TextColumns("a\xe6\xbc\xa2"), 3U);
    EXPECT_EQ(
        SvgNumber(1.005) + ' ' + SvgNumber(-0.001) + ' ' + SvgNumber(NAN) + ' ' + SvgNumber(20),
        "1 0 0 20");
    const std::string_view known[] = {"restart", "reporting", "uid"};
    EXPECT_EQ(NearestWord("restrat", known), "restart");
    EXPECT_EQ(NearestWord("gid", known), "uid");
    EXPECT_EQ(NearestWord("colour", known), "");
}

}  // namespace
}  // namespace ProcMgr::Pmctl
