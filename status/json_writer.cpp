#include "status/json_writer.h"

#include <cstddef>

#include "main/common/utf8.h"

namespace ProcMgr::Status {
namespace {

constexpr std::string_view HEX_DIGITS = "0123456789abcdef";

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
    const size_t length = byte < 0x80 ? 0 : Utf8Length(text);
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
