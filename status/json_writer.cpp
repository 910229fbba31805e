#include "status/json_writer.h"

#include <array>
#include <cstddef>

namespace ProcMgr::Status {
namespace {

constexpr std::string_view HEX_DIGITS = "0123456789abcdef";

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

// The length of the character of several bytes that `text` begins with; 0 when there is none.
size_t LengthOfCharacter(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
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

void AppendEscape(std::string& out, unsigned char byte) {
    out += "\\u00";
    out += HEX_DIGITS[byte >> 4U];
    out += HEX_DIGITS[byte & 0xFU];
}

// Appends the character that `text` begins with. Returns the number of bytes that it has taken.
size_t AppendCharacter(std::string& out, std::string_view text) {
    const auto byte = static_cast<unsigned char>(text[0]);
    if (byte == '"' || byte == '\\') {
        out += '\\';
        out += text[0];
        return 1;
    }
    if (byte == '\n') {
        out += "\\n";
        return 1;
    }
    if (byte >= 0x20 && byte < 0x80) {
        out += text[0];
        return 1;
    }
    const size_t length = byte < 0x80 ? 0 : LengthOfCharacter(text);
    if (length == 0) {
        AppendEscape(out, byte);
        return 1;
    }
    out += text.substr(0, length);
    return length;
}

}  // namespace

void JsonWriter::Separate() {
    if (needsComma_) {
        text_ += ',';
    }
}

void JsonWriter::Open(char bracket) {
    Separate();
    text_ += bracket;
    needsComma_ = false;
}

void JsonWriter::Close(char bracket) {
    text_ += bracket;
    needsComma_ = true;
}

void JsonWriter::Plain(std::string_view text) {
    Separate();
    text_ += text;
    needsComma_ = true;
}

void JsonWriter::Quote(std::string_view text) {
    text_ += '"';
    while (!text.empty()) {
        text.remove_prefix(AppendCharacter(text_, text));
    }
    text_ += '"';
}

void JsonWriter::Key(std::string_view key) {
    Separate();
    Quote(key);
    text_ += ':';
    needsComma_ = false;
}

void JsonWriter::Text(std::string_view text) {
    Separate();
    Quote(text);
    needsComma_ = true;
}

void JsonWriter::Member(std::string_view key, std::string_view text) {
    Key(key);
    Text(text);
}

void JsonWriter::Member(std::string_view key, bool value) {
    Key(key);
    Boolean(value);
}

void JsonWriter::OpenObject(std::string_view key) {
    Key(key);
    OpenObject();
}

void JsonWriter::OpenArray(std::string_view key) {
    Key(key);
    OpenArray();
}

}  // namespace ProcMgr::Status
