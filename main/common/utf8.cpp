#include "main/common/utf8.h"

#include <array>

namespace ProcMgr {
namespace {

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// The first bytes of a character of several bytes, and what may follow the first one.
struct Lead {
    unsigned char first;
    unsigned char last;
    size_t length;
    unsigned char secondMin;
    unsigned char secondMax;
};

// Leaves out what is no UTF-8: characters that are longer than needed, halves of pairs, and numbers
// above 0x10FFFF.
constexpr std::array LEADS = {
    Lead{0xC2, 0xDF, 2, 0x80, 0xBF}, Lead{0xE0, 0xE0, 3, 0xA0, 0xBF},
    Lead{0xE1, 0xEC, 3, 0x80, 0xBF}, Lead{0xED, 0xED, 3, 0x80, 0x9F},
    Lead{0xEE, 0xEF, 3, 0x80, 0xBF}, Lead{0xF0, 0xF0, 4, 0x90, 0xBF},
    Lead{0xF1, 0xF3, 4, 0x80, 0xBF}, Lead{0xF4, 0xF4, 4, 0x80, 0x8F},
};

}  // namespace

size_t Utf8Length(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) {
        return 1;
    }
    for (const Lead& lead : LEADS) {
        if (first < lead.first || first > lead.last) {
            continue;
        }
        if (text.size() < lead.length) {
            return 0;
        }
        const auto second = static_cast<unsigned char>(text[1]);
        bool isValid = second >= lead.secondMin && second <= lead.secondMax;
        for (size_t i = 2; i < lead.length; ++i) {
            isValid = isValid && IsContinuation(text[i]);
        }
        return isValid ? lead.length : 0;
    }
    return 0;
}

}  // namespace ProcMgr
