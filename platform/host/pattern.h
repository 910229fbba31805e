// The pattern language of manifests: a configured value "match(EXPR)" stands for every value that
// the POSIX extended regular expression EXPR matches as a whole. The manifest loader checks
// patterns with it, ParseAndDepend answers the daemon with it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ProcMgr {

// A supplied value longer than this never matches.
constexpr size_t MAX_PATTERN_VALUE = 4096;
// The regular expression compiler recurses into groups and writes repetitions out, so what it is
// given is bounded: characters of EXPR, and its size with "{n}" and "+" written out.
constexpr size_t MAX_PATTERN_EXPRESSION = 1024;
constexpr size_t MAX_PATTERN_EXPANSION = 2048;

// True for "match(EXPR)", whether or not EXPR compiles.
bool IsPattern(std::string_view value);

// Why a pattern cannot be used; empty when it can.
std::string PatternFault(const std::string& pattern);

// True when `value` as a whole satisfies `pattern`; false for a pattern that cannot be used.
bool MatchesPattern(const std::string& pattern, const std::string& value);

}  // namespace ProcMgr
