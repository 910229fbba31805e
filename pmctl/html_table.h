// A table of HTML that is built row by row. All texts are escaped.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {

// Classes of a column, separated by blanks, are classes of the style sheet of the page.
struct HtmlColumn {
    std::string_view title;
    std::string_view classes;
};

class HtmlTable {
public:
    // `classes`: of the table.
    HtmlTable(std::string_view classes, std::vector<HtmlColumn> columns);

    // A cell of the present row; the columns follow in order. A full row ends by itself.
    void Add(std::string_view text);
    // The same of HTML, whose texts the caller has escaped.
    void AddHtml(std::string_view html);

    bool IsEmpty() const { return rows_.empty(); }
    // The table in an element that scrolls where it is too wide.
    std::string Html() const;

private:
    const std::vector<HtmlColumn> columns_;
    const std::string classes_;
    size_t column_ = 0;  // of the next cell
    std::string rows_;
};

// The class of the style sheet for text of this kind; empty for plain text.
std::string_view InkClass(Ink ink);

// ` class="CLASSES"`, empty without classes.
std::string ClassAttribute(std::string_view classes);

}  // namespace ProcMgr::Pmctl
