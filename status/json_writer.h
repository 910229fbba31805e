// Writes one JSON document into a string. The caller opens and closes objects and arrays in their
// order; commas, quotes and escapes are the writer's. One thread uses an object.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace ProcMgr::Status {

class JsonWriter {
public:
    void OpenObject() { Open('{'); }
    void CloseObject() { Close('}'); }
    void OpenArray() { Open('['); }
    void CloseArray() { Close(']'); }
    // The key of the value that follows.
    void Key(std::string_view key);

    // A byte that is not part of valid UTF-8 is written as the character of its number.
    void Text(std::string_view text);
    void Boolean(bool value) { Plain(value ? "true" : "false"); }
    void Null() { Plain("null"); }
    template <std::integral Integer>
    void Number(Integer value) {
        Plain(std::to_string(value));
    }

    // A key and its value.
    void Member(std::string_view key, std::string_view text);
    void Member(std::string_view key, const char* text) { Member(key, std::string_view(text)); }
    void Member(std::string_view key, bool value);
    template <std::integral Integer>
    void Member(std::string_view key, Integer value) {
        Key(key);
        Number(value);
    }
    void OpenObject(std::string_view key);
    void OpenArray(std::string_view key);

    // The document; the writer is empty afterwards.
    std::string Take() { return std::exchange(text_, {}); }

private:
    void Separate();
    void Open(char bracket);
    void Close(char bracket);
    void Plain(std::string_view text);
    void Quote(std::string_view text);

    std::string text_;
    bool needsComma_ = false;
};

}  // namespace ProcMgr::Status
