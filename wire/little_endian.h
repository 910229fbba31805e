// Integers of a wire format: their bytes are little-endian on any host and need no alignment. Used
// by the packet codec of this directory, by the record codecs of message/, and through both by the
// daemon, the platform library and the client library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Wire {

// Writes the sizeof(Number) bytes at `out`.
template <typename Number>
void StoreLittleEndian(Number value, uint8_t* out) {
    static_assert(std::is_unsigned_v<Number>);
    for (size_t i = 0; i < sizeof(value); ++i) {
        out[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

// Reads the sizeof(Number) bytes at `in`.
template <typename Number>
Number LoadLittleEndian(const uint8_t* in) {
    static_assert(std::is_unsigned_v<Number>);
    Number value = 0;
    for (size_t i = 0; i < sizeof(value); ++i) {
        value |= static_cast<Number>(in[i]) << (8 * i);
    }
    return value;
}

}  // namespace Wire
