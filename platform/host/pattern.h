// The pattern language of manifests: a configured value "match(EXPR)" accepts every supplied value
// that the POSIX extended regular expression EXPR matches as a whole. The manifest loader checks
// patterns with these functions, and ParseAndDepend compares supplied values for the daemon.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace PlatformHost {

// A supplied value longer than this never matches.
constexpr size_t MAX_PATTERN_VALUE = 4096;
// The regular expression compiler recurses into groups and expands repetitions. So EXPR is limited
// twice: in characters, and in size with "{n}" and "+" expanded.
constexpr size_t MAX_PATTERN_EXPRESSION = 1024;
constexpr size_t MAX_PATTERN_EXPANSION = 2048;

// True for "match(EXPR)", whether or not EXPR compiles.
bool IsPattern(std::string_view value);

// Returns the reason why a pattern cannot be used; empty when it can.
std::string PatternFault(const std::string& pattern);

// True when `value` as a whole satisfies `pattern`; false for a pattern that cannot be used.
bool MatchesPattern(const std::string& pattern, const std::string& value);

}  // namespace PlatformHost
