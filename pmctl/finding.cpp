#include "pmctl/finding.h"

#include <algorithm>
#include <map>
#include <utility>

#include "pmctl/people.h"

namespace ProcMgr::Pmctl {

namespace {

std::string_view ColourOf(Severity severity) {
    switch (severity) {
        case Severity::ERROR:
            return "\x1b[1;31m";
        case Severity::WARNING:
            return "\x1b[1;33m";
        case Severity::NOTE:
            return "\x1b[36m";
    }
    return {};
}

}  // namespace

std::string_view SeverityName(Severity severity) {
    switch (severity) {
        case Severity::ERROR:
            return "error";
        case Severity::WARNING:
            return "warning";
        case Severity::NOTE:
            return "note";
    }
    return "error";
}

std::string Finding::Text(bool hasColours) const {
    std::string place = file;
    if (line > 0) {
        place += ':' + std::to_string(line);
    }
    std::string rest = key.empty() ? what : key + ": " + what;
    if (!hint.empty()) {
        rest += " (" + hint + ')';
    }
    std::string word(SeverityName(severity));
    if (hasColours) {
        word = std::string(ColourOf(severity)) + word + "\x1b[0m";
    }
    return Printable(place) + ": " + word + ": " + Printable(rest);
}

void Findings::Add(Finding finding) {
    const bool isError = finding.severity == Severity::ERROR;
    if (all_.size() >= SIZE_MAX_KEPT * (isError ? 2 : 1)) {
        ++leftOut_;
        return;
    }
    all_.push_back(std::move(finding));
}

size_t Findings::Count(Severity severity) const {
    return static_cast<size_t>(
        std::count_if(all_.begin(), all_.end(),
                      [severity](const Finding& finding) { return finding.severity == severity; }));
}

void Findings::SortNew() {
    std::map<std::string, size_t, std::less<>> order;
    const auto begin = all_.begin() + static_cast<std::ptrdiff_t>(sorted_);
    for (auto finding = begin; finding != all_.end(); ++finding) {
        order.try_emplace(finding->file, order.size());
    }
    std::stable_sort(begin, all_.end(), [&order](const Finding& one, const Finding& other) {
        const std::pair left(order.at(one.file), one.line);
        return left < std::pair(order.at(other.file), other.line);
    });
    sorted_ = all_.size();
}

}  // namespace ProcMgr::Pmctl
