#include "pmctl/svg.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <utility>

namespace ProcMgr::Pmctl {
namespace {

// The widest of the usual fonts of fixed width, in parts of the font size.
constexpr double COLUMN_WIDTH = 0.61;
constexpr uint32_t REPLACEMENT = 0xfffd;

// Plain rules and no CSS variables, which many viewers of SVG files do not know.
constexpr std::string_view STYLE = R"css(
.pm{color-scheme:light dark}
.pm text{font:12px ui-monospace,SFMono-Regular,Menlo,Consolas,"DejaVu Sans Mono","Liberation Mono",monospace;fill:#1f2328;white-space:pre}
.pm .heading{font-size:16px;font-weight:600}
.pm .strong{font-weight:600}
.pm .middle{text-anchor:middle}
.pm .end{text-anchor:end}
.pm .page{fill:#ffffff}
.pm rect,.pm path,.pm line{stroke-width:1.2}
.pm path{fill:none}
.pm text.quiet{fill:#59636e}
.pm text.bad{fill:#cf222e}
.pm .s-none{fill:#f6f8fa;stroke:#818b98}
.pm .s-start{fill:#ddf4ff;stroke:#0969da}
.pm .s-run{fill:#dafbe1;stroke:#1a7f37}
.pm .s-stop{fill:#fff8c5;stroke:#9a6700}
.pm .s-end{fill:#eaeef2;stroke:#59636e}
.pm .s-error{fill:#ffebe9;stroke:#cf222e}
.pm .missing{fill:#ffebe9;stroke:#cf222e;stroke-dasharray:5 3}
.pm .cycle{stroke:#cf222e;stroke-width:2.4}
.pm .bar-wait{fill:#d1d9e0}
.pm .bar-start{fill:#54aeff}
.pm .bar-run{fill:#4ac26b}
.pm .bar-fail{fill:#ff8182}
.pm .grid{stroke:#d1d9e0}
.pm .axis{stroke:#818b98}
.pm .edge{stroke:#818b98}
.pm line.bad,.pm path.bad{stroke:#cf222e}
.pm line.critical,.pm path.critical,.pm rect.critical{stroke:#bc4c00;stroke-width:2.4}
.pm .dashed{stroke-dasharray:5 3}
.pm .mark{fill:#818b98;stroke:none}
.pm .mark.bad{fill:#cf222e;stroke:none}
.pm .mark.critical{fill:#bc4c00;stroke:none}
.pm g:hover>path.edge{stroke-width:3}
@media (prefers-color-scheme:dark){
.pm text{fill:#f0f6fc}
.pm .page{fill:#0d1117}
.pm text.quiet{fill:#9198a1}
.pm text.bad{fill:#ff7b72}
.pm .s-none{fill:#212830;stroke:#8b949e}
.pm .s-start{fill:#0c2d6b;stroke:#4493f8}
.pm .s-run{fill:#0f3d1e;stroke:#3fb950}
.pm .s-stop{fill:#3b2e08;stroke:#d29922}
.pm .s-end{fill:#2a313c;stroke:#9198a1}
.pm .s-error{fill:#4b1113;stroke:#f85149}
.pm .missing{fill:#4b1113;stroke:#f85149}
.pm .cycle{stroke:#f85149}
.pm .bar-wait{fill:#3d444d}
.pm .bar-start{fill:#1f6feb}
.pm .bar-run{fill:#238636}
.pm .bar-fail{fill:#da3633}
.pm .grid{stroke:#2f353d}
.pm .axis{stroke:#8b949e}
.pm .edge{stroke:#8b949e}
.pm line.bad,.pm path.bad{stroke:#f85149}
.pm line.critical,.pm path.critical,.pm rect.critical{stroke:#f0883e}
.pm .mark{fill:#8b949e}
.pm .mark.bad{fill:#f85149}
.pm .mark.critical{fill:#f0883e}
}
)css";

struct Character {
    uint32_t code = REPLACEMENT;
    size_t length = 1;  // in bytes
};

// The first character of a text that is not empty; REPLACEMENT, one byte long, when the text does
// not begin with UTF-8.
Character FirstCharacter(std::string_view text) {
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0x80) {
        return {byte(0), 1};
    }
    const size_t length = byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : 2;
    if (byte(0) < 0xc2 || byte(0) > 0xf4 || text.size() < length) {
        return {};
    }
    uint32_t code = byte(0) & (0xffU >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80) {
            return {};
        }
        code = code << 6 | (byte(i) & 0x3fU);
    }
    constexpr std::array<uint32_t, 5> LOWEST{0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = code >= 0xd800 && code < 0xe000;
    const bool isValid = code >= LOWEST[length] && code <= 0x10ffff && !isSurrogate;
    return isValid ? Character{code, length} : Character{};
}

bool IsXmlCharacter(uint32_t code) {
    const bool isControl = code < 0x20 ? code != '\t' && code != '\n' : code >= 0x7f && code < 0xa0;
    return !isControl && code != 0xfffe && code != 0xffff;
}

size_t ColumnsOf(uint32_t code) {
    const bool isWide = (code >= 0x1100 && code < 0x1160) || (code >= 0x2e80 && code < 0xa4d0) ||
                        (code >= 0xac00 && code < 0xd7b0) || (code >= 0xf900 && code < 0xfb00) ||
                        (code >= 0xfe30 && code < 0xfe70) || (code >= 0xff00 && code < 0xff61) ||
                        code >= 0x1f000;
    return isWide ? 2 : 1;
}

std::string_view EntityOf(uint32_t code) {
    switch (code) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '"':
            return "&quot;";
        case '\'':
            return "&#39;";
        default:
            return {};
    }
}

// The bytes of the first characters that take at most `columns`.
size_t BytesOfColumns(std::string_view text, size_t columns) {
    size_t bytes = 0;
    while (bytes < text.size()) {
        const Character next = FirstCharacter(text.substr(bytes));
        const size_t width = ColumnsOf(next.code);
        if (width > columns) {
            break;
        }
        columns -= width;
        bytes += next.length;
    }
    return bytes;
}

}  // namespace

std::string EscapeXml(std::string_view text) {
    std::string escaped;
    while (!text.empty()) {
        const Character next = FirstCharacter(text);
        const std::string_view entity = EntityOf(next.code);
        const bool isInvalid = next.code == REPLACEMENT || !IsXmlCharacter(next.code);
        escaped += isInvalid        ? "\xef\xbf\xbd"
                   : entity.empty() ? text.substr(0, next.length)
                                    : entity;
        text.remove_prefix(next.length);
    }
    return escaped;
}

std::string SvgNumber(double number) {
    constexpr double LARGEST = 1e9;  // a picture has no larger numbers; also for what is no number
    const double bounded = std::isfinite(number) ? std::clamp(number, -LARGEST, LARGEST) : 0;
    const auto hundredths = std::llround(bounded * 100);
    std::array<char, 32> digits{};
    const auto [end, error] =
        std::to_chars(digits.data(), digits.data() + digits.size(),
                      static_cast<double>(hundredths) / 100, std::chars_format::fixed, 2);
    std::string text(digits.data(), end);
    while (text.back() == '0') {
        text.pop_back();
    }
    if (text.back() == '.') {
        text.pop_back();
    }
    return text == "-0" ? "0" : text;
}

size_t TextColumns(std::string_view text) {
    size_t columns = 0;
    while (!text.empty()) {
        const Character next = FirstCharacter(text);
        columns += ColumnsOf(next.code);
        text.remove_prefix(next.length);
    }
    return columns;
}

double TextWidth(std::string_view text, double fontSize) {
    return static_cast<double>(TextColumns(text)) * fontSize * COLUMN_WIDTH;
}

std::string ShortenedText(std::string_view text, size_t columns) {
    const size_t all = TextColumns(text);
    if (all <= columns || columns == 0) {
        return std::string(text);
    }
    const size_t tail = (columns - 1) / 2;
    const size_t head = columns - 1 - tail;
    std::string shortened(text.substr(0, BytesOfColumns(text, head)));
    shortened += "…";
    // The tail begins at the first character that leaves at most `tail` columns after it.
    size_t skipped = BytesOfColumns(text, all - tail);
    while (TextColumns(text.substr(skipped)) > tail) {
        skipped += FirstCharacter(text.substr(skipped)).length;
    }
    shortened += text.substr(skipped);
    return shortened;
}

std::string_view StateClass(std::string_view state) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 6> CLASSES{{
        {"STARTING", "s-start"},
        {"RUNNING", "s-run"},
        {"TERMINATING", "s-stop"},
        {"RESTARTING", "s-stop"},
        {"TERMINATED", "s-end"},
        {"error", "s-error"},
    }};
    const auto* const found =
        std::find_if(CLASSES.begin(), CLASSES.end(),
                     [state](const auto& known) { return known.first == state; });
    return found == CLASSES.end() ? "s-none" : found->second;
}

SvgPicture::SvgPicture(SvgKind kind, double width, double height, std::string_view title) {
    const bool isFile = kind == SvgKind::STANDALONE;
    text_ = isFile ? "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" : "";
    text_ += "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"pm\" role=\"img\"";
    Attribute("width", width);
    Attribute("height", height);
    text_ += " viewBox=\"0 0 " + SvgNumber(width) + ' ' + SvgNumber(height) + "\">\n<title>";
    text_ += EscapeXml(title);
    text_ += "</title>\n<style>";
    text_ += STYLE;
    text_ += "</style>\n";
    if (isFile) {
        text_ += "<rect class=\"page\" width=\"100%\" height=\"100%\"/>\n";
    }
}

void SvgPicture::Attribute(std::string_view name, double number) {
    text_ += ' ';
    text_ += name;
    text_ += "=\"";
    text_ += SvgNumber(number);
    text_ += '"';
}

void SvgPicture::ClassesAndEnd(std::string_view classes, std::string_view end) {
    if (!classes.empty()) {
        text_ += " class=\"";
        text_ += classes;
        text_ += '"';
    }
    text_ += end;
}

void SvgPicture::BeginGroup(std::string_view classes, std::string_view toolTip) {
    text_ += "<g";
    ClassesAndEnd(classes, ">");
    if (!toolTip.empty()) {
        text_ += "<title>" + EscapeXml(toolTip) + "</title>";
    }
    text_ += '\n';
}

void SvgPicture::BeginMovedGroup(double x, double y) {
    text_ += "<g transform=\"translate(" + SvgNumber(x) + ' ' + SvgNumber(y) + ")\">\n";
}

void SvgPicture::EndGroup() {
    text_ += "</g>\n";
}

void SvgPicture::Box(double x, double y, double width, double height, std::string_view classes,
                     double radius) {
    text_ += "<rect";
    Attribute("x", x);
    Attribute("y", y);
    Attribute("width", std::max(width, 0.0));
    Attribute("height", std::max(height, 0.0));
    Attribute("rx", radius);
    ClassesAndEnd(classes, "/>\n");
}

void SvgPicture::Line(double x1, double y1, double x2, double y2, std::string_view classes) {
    text_ += "<line";
    Attribute("x1", x1);
    Attribute("y1", y1);
    Attribute("x2", x2);
    Attribute("y2", y2);
    ClassesAndEnd(classes, "/>\n");
}

void SvgPicture::Path(std::string_view data, std::string_view classes) {
    text_ += "<path d=\"";
    text_ += data;
    text_ += '"';
    ClassesAndEnd(classes, "/>\n");
}

void SvgPicture::Text(double x, double y, std::string_view text, std::string_view classes) {
    text_ += "<text";
    Attribute("x", x);
    Attribute("y", y);
    ClassesAndEnd(classes, ">");
    text_ += EscapeXml(text) + "</text>\n";
}

std::string SvgPicture::Finish() {
    text_ += "</svg>\n";
    return std::move(text_);
}

}  // namespace ProcMgr::Pmctl
