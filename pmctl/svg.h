// What the pictures of pmctl share: the elements of SVG as text, the escaping of names, the widths
// of texts, and one style sheet with a light and a dark scheme. Pure; no function reads a file.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "pmctl/drawing.h"

namespace ProcMgr::Pmctl {

// Font sizes of the style sheet in pixels: all texts, and the heading of a picture.
inline constexpr double SVG_FONT_SIZE = 12;
inline constexpr double SVG_HEADING_SIZE = 16;

// The text for XML, inside an element or an attribute. Characters that XML forbids and bytes that
// are no UTF-8 become U+FFFD.
std::string EscapeXml(std::string_view text);

// The number with at most two digits after the point, in the C locale.
std::string SvgNumber(double number);

// The columns that the text takes in a font of fixed width; wide characters take two.
size_t TextColumns(std::string_view text);
// The width in pixels; an upper limit for the fonts of the style sheet.
double TextWidth(std::string_view text, double fontSize = SVG_FONT_SIZE);
// The text when it takes at most `columns`, else its begin and its end with "…" between them.
std::string ShortenedText(std::string_view text, size_t columns);

// The style class of a state of the daemon: "s-none" (no state, INITSTATE), "s-start", "s-run",
// "s-stop", "s-end", "s-error". Boxes of the class are filled and outlined in its colour.
std::string_view StateClass(std::string_view state);

// A picture that is built element by element. Coordinates are pixels from the upper left corner.
// `classes` are classes of the style sheet, separated by blanks:
//   texts     heading, quiet (grey), strong, bad (red), middle and end (the anchor of the text)
//   boxes     the classes of StateClass(), missing (dashed), cycle (red outline), critical (thick
//             outline), bar-wait, bar-start, bar-run, bar-fail (filled bars without an outline)
//   lines     grid, axis, edge, bad, critical; dashed; mark (filled path, such as an arrow head)
// Each text is escaped.
class SvgPicture {
public:
    SvgPicture(SvgKind kind, double width, double height, std::string_view title);

    // Elements up to EndGroup() share the tool tip; lines of it are separated by "\n".
    void BeginGroup(std::string_view classes, std::string_view toolTip = {});
    // Elements up to EndGroup() are moved by these numbers.
    void BeginMovedGroup(double x, double y);
    void EndGroup();

    void Box(double x, double y, double width, double height, std::string_view classes,
             double radius = 4);
    void Line(double x1, double y1, double x2, double y2, std::string_view classes);
    // `data`: the commands of an SVG path.
    void Path(std::string_view data, std::string_view classes);
    // `y` is the base line.
    void Text(double x, double y, std::string_view text, std::string_view classes = {});

    // The whole picture. The object must not be used afterwards.
    std::string Finish();

private:
    // ` NAME="NUMBER"`
    void Attribute(std::string_view name, double number);
    void ClassesAndEnd(std::string_view classes, std::string_view end);

    std::string text_;
};

}  // namespace ProcMgr::Pmctl
