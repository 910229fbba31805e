#include "output/line_text.h"

#include <algorithm>

#include "main/common/utf8.h"

namespace ProcMgr::Output {
namespace {

constexpr size_t LONGEST_CHARACTER = 4;

bool IsContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

// Whether a control character begins here, also one of those that UTF-8 writes as two bytes.
bool IsControl(std::string_view text) {
    const auto byte = static_cast<unsigned char>(text[0]);
    return byte < 0x20 || byte == 0x7f ||
           (byte == 0xc2 && static_cast<unsigned char>(text[1]) < 0xa0);
}

}  // namespace

size_t CutLength(std::string_view text, size_t length) {
    if (text.size() <= length) {
        return text.size();
    }
    size_t cut = length;
    while (cut > 0 && length - cut < LONGEST_CHARACTER && IsContinuation(text[cut])) {
        --cut;
    }
    // So many continuation bytes are no character.
    return IsContinuation(text[cut]) ? length : cut;
}

std::string MakeHarmless(std::string_view text) {
    if (text.ends_with('\r')) {
        text.remove_suffix(1);
    }
    std::string harmless;
    harmless.reserve(text.size());
    while (!text.empty()) {
        const size_t length = Utf8Length(text);
        const size_t taken = std::max<size_t>(length, 1);
        if (text[0] == '\t') {
            harmless += ' ';
        } else if (length == 0 || IsControl(text)) {
            harmless.append(taken, '?');
        } else {
            harmless += text.substr(0, taken);
        }
        text.remove_prefix(taken);
    }
    return harmless;
}

}  // namespace ProcMgr::Output
