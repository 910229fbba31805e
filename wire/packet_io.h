// Sends and receives the packets of wire/packet.h on a connected SEQPACKET socket. Used by
// platform/host/ and agent/. No call waits; each may be made from any thread that owns the socket
// at that time.
#pragma once

#include <cstdint>
#include <span>

#include "wire/packet.h"

namespace Wire {

enum class SendResult {
    SENT,
    FULL,    // the peer has not read enough yet
    BROKEN,  // the connection has ended, or the socket refuses the packet
};

// Sends one packet: all of it or nothing. `body`: at most PACKET_BODY_MAX bytes.
SendResult SendPacket(int socket, const PacketHeader& header, std::span<const uint8_t> body);

enum class ReceiveResult {
    PACKET,
    NONE,   // no packet is there yet
    ENDED,  // the connection has ended, or the peer has sent something else than a packet
};

// Receives one packet into `buffer`, whose first PACKET_MAX bytes it uses; `buffer` must have them.
// After PACKET, `packet` is set and its body points into `buffer`.
ReceiveResult ReceivePacket(int socket, std::span<uint8_t> buffer, Packet& packet);

}  // namespace Wire
