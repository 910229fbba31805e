#include "platform/host/pattern.h"

#include <regex.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <numeric>
#include <vector>

namespace PlatformHost {
namespace {

constexpr std::string_view PREFIX = "match(";
constexpr std::string_view SUFFIX = ")";

// The number of copies for an interval "{m}", "{m,}" or "{m,n}", passed without its braces.
size_t IntervalCount(std::string_view interval) {
    const size_t comma = interval.find(',');
    const bool open = comma != std::string_view::npos && comma + 1 == interval.size();
    const std::string_view text =
        open || comma == std::string_view::npos ? interval : interval.substr(comma + 1);
    size_t count = 1;
    std::from_chars(text.data(), text.data() + text.size(), count);
    return std::max<size_t>(count, 1) + (open ? 1 : 0);
}

// Estimates the size of the expression with its repetitions expanded, as the compiler expands them:
// nested repetitions multiply. A bracket expression counts as the characters in it. The calculation
// stops above the limit.
size_t ExpandedSize(std::string_view expression) {
    std::vector<size_t> groups{0};  // size of each open group without its last item
    size_t last = 0;                // size of the item that a repetition would repeat
    for (size_t i = 0; i < expression.size() && groups.back() <= MAX_PATTERN_EXPANSION; ++i) {
        const char c = expression[i];
        if (c == '{') {
            const size_t end = std::min(expression.find('}', i), expression.size());
            const size_t count = IntervalCount(expression.substr(i + 1, end - i - 1));
            last = std::min(last, MAX_PATTERN_EXPANSION + 1) *
                   std::min(count, MAX_PATTERN_EXPANSION + 1);
            i = end;
        } else if (c == '+') {
            last = std::min(last, MAX_PATTERN_EXPANSION + 1) * 2;
        } else if (c == '(') {
            groups.back() += last;
            groups.push_back(0);
            last = 0;
        } else if (c == ')' && groups.size() > 1) {
            last += groups.back() + 1;
            groups.pop_back();
        } else {
            groups.back() += last;
            last = 1;
            i += c == '\\' ? 1 : 0;
        }
    }
    return std::accumulate(groups.begin(), groups.end(), last);
}

// A compiled pattern. The expression is compiled as written and not inside "^(...)$": there, an
// unbalanced expression such as "a)|(b" would compile and match parts of a value.
class Regex {
public:
    explicit Regex(const std::string& pattern) {
        const std::string expression =
            pattern.substr(PREFIX.size(), pattern.size() - PREFIX.size() - SUFFIX.size());
        if (expression.size() > MAX_PATTERN_EXPRESSION) {
            fault_ = "the expression is longer than " + std::to_string(MAX_PATTERN_EXPRESSION);
        } else if (expression.find('\0') != std::string::npos) {
            fault_ = "the expression holds a NUL character";
        } else if (ExpandedSize(expression) > MAX_PATTERN_EXPANSION) {
            fault_ = "the expression repeats too much";
        } else {
            Compile(expression);
        }
    }
    ~Regex() {
        if (compiled_) {
            regfree(&regex_);
        }
    }
    Regex(const Regex&) = delete;
    Regex& operator=(const Regex&) = delete;

    const std::string& Fault() const { return fault_; }

    // POSIX reports the longest of the leftmost matches: if the whole value can match, that match
    // is reported.
    bool MatchesWhole(const std::string& value) const {
        if (!compiled_) {
            return false;
        }
        regmatch_t match{};
        return regexec(&regex_, value.c_str(), 1, &match, 0) == 0 && match.rm_so == 0 &&
               static_cast<size_t>(match.rm_eo) == value.size();
    }

private:
    void Compile(const std::string& expression) {
        const int result = regcomp(&regex_, expression.c_str(), REG_EXTENDED);
        compiled_ = result == 0;
        if (!compiled_) {
            std::array<char, 128> text{};
            regerror(result, &regex_, text.data(), text.size());
            fault_ = text.data();
        }
    }

    regex_t regex_{};
    bool compiled_ = false;
    std::string fault_;
};

}  // namespace

bool IsPattern(std::string_view value) {
    return value.size() >= PREFIX.size() + SUFFIX.size() && value.starts_with(PREFIX) &&
           value.ends_with(SUFFIX);
}

std::string PatternFault(const std::string& pattern) {
    return IsPattern(pattern) ? Regex(pattern).Fault() : "not written match(EXPR)";
}

bool MatchesPattern(const std::string& pattern, const std::string& value) {
    if (!IsPattern(pattern) || value.size() > MAX_PATTERN_VALUE ||
        value.find('\0') != std::string::npos) {
        return false;
    }
    return Regex(pattern).MatchesWhole(value);
}

}  // namespace PlatformHost
