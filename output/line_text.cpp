#include "output/line_text.h"

namespace ProcMgr::Output {
namespace {

constexpr size_t LONGEST_CHARACTER = 4;

bool IsContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

bool IsControl(unsigned char byte) {
    return byte < 0x20 || byte == 0x7f;
}

// Whether a control character of Latin-1 begins here, in its UTF-8 form.
bool IsLatinControl(std::string_view text) {
    return text.size() > 1 && text[0] == '\xc2' && static_cast<unsigned char>(text[1]) >= 0x80 &&
           static_cast<unsigned char>(text[1]) < 0xa0;
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
    std::string harmless(text);
    for (size_t i = 0; i < harmless.size(); ++i) {
        if (harmless[i] == '\t') {
            harmless[i] = ' ';
        } else if (IsControl(static_cast<unsigned char>(harmless[i]))) {
            harmless[i] = '?';
        } else if (IsLatinControl(text.substr(i))) {
            harmless[i] = harmless[i + 1] = '?';
        }
    }
    return harmless;
}

}  // namespace ProcMgr::Output
