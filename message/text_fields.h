// The fields of a text payload, each followed by the separator '#': written and read. Used by the
// record codecs of this directory, and by serialization.cpp for a single block of fields.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace ProcMgr::Message {

inline constexpr char SEPARATOR = '#';

// Appends fields to a text.
class FieldWriter {
public:
    void Add(std::string_view text) {
        isReadable_ = isReadable_ && text.find(SEPARATOR) == std::string_view::npos;
        text_ += text;
        text_ += SEPARATOR;
    }
    void Add(std::integral auto number) { Add(std::to_string(number)); }
    // The number of texts, then the texts.
    void Add(const std::vector<std::string>& texts) {
        Add(texts.size());
        for (const std::string& text : texts) {
            Add(text);
        }
    }

    // False when a field holds a separator: the reader would take that field for two.
    bool IsReadable() const { return isReadable_; }
    const std::string& Text() const { return text_; }

private:
    std::string text_;
    bool isReadable_ = true;
};

// Reads fields with the same results as std::istringstream, but faster. After a field that is
// missing or is no number the reader has failed, like a stream, and reads nothing more.
class FieldReader {
public:
    explicit FieldReader(std::string_view bytes) : rest_(bytes) {}

    // Reads a number and the one character after it, whatever that character is. White space before
    // the number is skipped and a sign is accepted; "-1" gives the largest value of an unsigned
    // type. The reader fails at a number that is out of range, which gives the nearest value of the
    // type, and at a text that is no number, which gives 0. `number` is unchanged when nothing is
    // left to read or the reader has failed before.
    template <typename Number>
    void ReadNumber(Number& number) {
        if (hasFailed_) {
            return;
        }
        SkipSpace();
        if (rest_.empty()) {
            hasFailed_ = true;
            return;
        }
        const bool isNegative = rest_.front() == '-';
        if (isNegative || rest_.front() == '+') {
            rest_.remove_prefix(1);
        }
        number = TakeDigits<Number>(isNegative);
        hasFailed_ = hasFailed_ || rest_.empty();
        rest_.remove_prefix(hasFailed_ ? 0 : 1);
    }

    // Reads up to the separator or the end of the bytes. False, with `text` unchanged, when nothing
    // is left to read.
    bool ReadText(std::string& text) {
        if (hasFailed_ || rest_.empty()) {
            hasFailed_ = true;
            return false;
        }
        const size_t length = std::min(rest_.find(SEPARATOR), rest_.size());
        text.assign(rest_.substr(0, length));
        rest_.remove_prefix(std::min(length + 1, rest_.size()));
        return true;
    }

    // Appends `count` texts to `out`; a text after the end of the bytes is empty.
    void ReadTexts(size_t count, std::vector<std::string>& out) {
        const size_t first = out.size();
        out.resize(first + count);
        for (size_t i = first; i < out.size() && ReadText(out[i]); ++i) {
        }
    }

    bool HasFailed() const { return hasFailed_; }
    // The number of bytes that have not been read.
    size_t Left() const { return rest_.size(); }

private:
    void SkipSpace() {
        const size_t length = rest_.find_first_not_of(" \t\n\v\f\r");
        rest_.remove_prefix(std::min(length, rest_.size()));
    }

    template <typename Number>
    Number TakeDigits(bool isNegative) {
        using Magnitude = std::make_unsigned_t<Number>;
        constexpr bool IS_SIGNED = std::is_signed_v<Number>;
        const auto largest =
            static_cast<Magnitude>(static_cast<Magnitude>(std::numeric_limits<Number>::max()) +
                                   (IS_SIGNED && isNegative ? 1U : 0U));
        Magnitude value = 0;
        bool isTooLarge = false;
        size_t length = 0;
        for (; length < rest_.size() && rest_[length] >= '0' && rest_[length] <= '9'; ++length) {
            const auto digit = static_cast<Magnitude>(rest_[length] - '0');
            isTooLarge = isTooLarge || value > (largest - digit) / 10;
            value = static_cast<Magnitude>(value * 10 + digit);
        }
        rest_.remove_prefix(length);
        hasFailed_ = isTooLarge || length == 0;
        if (isTooLarge) {
            return IS_SIGNED && isNegative ? std::numeric_limits<Number>::min()
                                           : std::numeric_limits<Number>::max();
        }
        return static_cast<Number>(isNegative ? Magnitude{0} - value : value);
    }

    std::string_view rest_;
    bool hasFailed_ = false;
};

}  // namespace ProcMgr::Message
