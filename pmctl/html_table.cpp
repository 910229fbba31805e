#include "pmctl/html_table.h"

#include "pmctl/svg.h"

namespace ProcMgr::Pmctl {

std::string_view InkClass(Ink ink) {
    switch (ink) {
        case Ink::GOOD:
            return "good";
        case Ink::BAD:
            return "bad";
        case Ink::BUSY:
            return "busy";
        default:
            return "";
    }
}

std::string ClassAttribute(std::string_view classes) {
    return classes.empty() ? "" : " class=\"" + std::string(classes) + '"';
}

HtmlTable::HtmlTable(std::string_view classes, std::vector<HtmlColumn> columns)
    : columns_(std::move(columns)), classes_(classes) {}

void HtmlTable::Add(std::string_view text) {
    AddHtml(EscapeXml(text));
}

void HtmlTable::AddHtml(std::string_view html) {
    rows_ += column_ == 0 ? "<tr>" : "";
    rows_ += "<td" + ClassAttribute(columns_[column_].classes) + '>';
    rows_ += html;
    rows_ += "</td>";
    column_ = (column_ + 1) % columns_.size();
    rows_ += column_ == 0 ? "</tr>\n" : "";
}

std::string HtmlTable::Html() const {
    std::string html = "<div class=\"wide\"><table" + ClassAttribute(classes_) + "><thead><tr>";
    for (const HtmlColumn& column : columns_) {
        html += "<th" + ClassAttribute(column.classes) + '>' + EscapeXml(column.title) + "</th>";
    }
    return html + "</tr></thead><tbody>\n" + rows_ + "</tbody></table></div>\n";
}

}  // namespace ProcMgr::Pmctl
