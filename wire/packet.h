// The packets that travel between the messaging library of the host platform and its peers: a
// header of 16 bytes (magic, kind, sequence number) and a body. Used by platform/host/ on the
// daemon's side and by agent/ on the side of the services. Pure functions for any thread;
// wire/packet_io.h sends and receives packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace Wire {

// In bytes.
inline constexpr size_t PACKET_HEADER_SIZE = 16;
inline constexpr size_t PACKET_BODY_MAX = 65536;
inline constexpr size_t PACKET_MAX = PACKET_HEADER_SIZE + PACKET_BODY_MAX;

enum class PacketKind : uint32_t {
    REQUEST = 1,
    CALL = 2,  // a request that wants a response
    RESPONSE = 3,
};

struct PacketHeader {
    PacketKind kind = PacketKind::REQUEST;
    // Chosen by the sender of a CALL, repeated in its RESPONSE, 0 in a REQUEST.
    uint64_t sequence = 0;
};

// A received packet. `body` points into the bytes that the packet was decoded from.
struct Packet {
    PacketHeader header;
    std::span<const uint8_t> body;
};

// Writes the header that precedes the body.
void EncodePacketHeader(const PacketHeader& header, std::span<uint8_t, PACKET_HEADER_SIZE> out);

// Decodes one whole packet. Nothing when `bytes` are shorter than a header or longer than
// PACKET_MAX, or have another magic or an unknown kind: the receiver then ends the connection.
std::optional<Packet> DecodePacket(std::span<const uint8_t> bytes);

}  // namespace Wire
