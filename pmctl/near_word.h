// "did you mean": the known word that is nearest to a word that nobody knows.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace ProcMgr::Pmctl {

// The nearest of `known`, the first of several; empty when none is near: when more than a third of
// the characters differ, two for a short word. Two exchanged characters are one difference.
std::string NearestWord(std::string_view word, std::span<const std::string_view> known);

// "did you mean 'WORD'?", empty when no word is near.
std::string DidYouMean(std::string_view word, std::span<const std::string_view> known);

}  // namespace ProcMgr::Pmctl
