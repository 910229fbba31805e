// The fields of a binary payload: 32-bit little-endian numbers, and texts that follow their length.
// Used by the record codecs of this directory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "wire/little_endian.h"

namespace ProcMgr::Message {

class BinaryWriter {
public:
    // `number` must fit into 32 bits.
    void AddNumber(size_t number) {
        std::array<uint8_t, sizeof(uint32_t)> bytes{};
        Wire::StoreLittleEndian(static_cast<uint32_t>(number), bytes.data());
        // Not by iterators of another type than char: std::string makes another string of these.
        bytes_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    void AddText(std::string_view text) {
        AddNumber(text.size());
        bytes_ += text;
    }

    const std::string& Bytes() const { return bytes_; }

private:
    std::string bytes_;
};

// Each call returns false, with the argument unchanged, when the bytes end before the field does.
class BinaryReader {
public:
    explicit BinaryReader(std::string_view bytes) : rest_(bytes) {}

    bool ReadNumber(uint32_t& number) {
        if (rest_.size() < sizeof(number)) {
            return false;
        }
        number = Wire::LoadLittleEndian<uint32_t>(reinterpret_cast<const uint8_t*>(rest_.data()));
        rest_.remove_prefix(sizeof(number));
        return true;
    }
    bool ReadText(std::string& text) {
        uint32_t length = 0;
        if (!ReadNumber(length) || length > rest_.size()) {
            return false;
        }
        text = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return true;
    }

    // The number of bytes that have not been read.
    size_t Left() const { return rest_.size(); }

private:
    std::string_view rest_;
};

}  // namespace ProcMgr::Message
