// What a check has found: the list of findings, and its text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ProcMgr::Pmctl {

// ERROR: the daemon refuses it, or does not start the service. WARNING: probably not what is meant.
// NOTE: what could not be looked at.
enum class Severity { ERROR, WARNING, NOTE };

std::string_view SeverityName(Severity severity);

struct Finding {
    Severity severity = Severity::ERROR;
    std::string file;
    uint32_t line = 0;  // 0: the file as a whole
    std::string key;    // may be empty
    std::string what;
    std::string hint;  // may be empty

    // "FILE:LINE: error: KEY: what (hint)", without control characters of the file.
    std::string Text(bool hasColours = false) const;
};

class Findings {
public:
    // After this number of findings only errors are added; after twice the number, none.
    static constexpr size_t SIZE_MAX_KEPT = 5000;

    void Add(Finding finding);
    size_t Count(Severity severity) const;
    size_t GetLeftOut() const { return leftOut_; }

    // Sorts the findings that were added since the last call by file and line. The files stay in
    // the order in which they were named first.
    void SortNew();

    const std::vector<Finding>& Get() const { return all_; }

private:
    std::vector<Finding> all_;
    size_t sorted_ = 0;  // the number of findings that SortNew() has sorted
    size_t leftOut_ = 0;
};

}  // namespace ProcMgr::Pmctl
