#include "wire/packet.h"

#include "wire/little_endian.h"

namespace Wire {
namespace {

constexpr uint32_t MAGIC = 0x4158554D;  // the bytes "MUXA"
constexpr size_t KIND_OFFSET = 4;
constexpr size_t SEQUENCE_OFFSET = 8;

}  // namespace

void EncodePacketHeader(const PacketHeader& header, std::span<uint8_t, PACKET_HEADER_SIZE> out) {
    StoreLittleEndian(MAGIC, out.data());
    StoreLittleEndian(static_cast<uint32_t>(header.kind), out.data() + KIND_OFFSET);
    StoreLittleEndian(header.sequence, out.data() + SEQUENCE_OFFSET);
}

std::optional<Packet> DecodePacket(std::span<const uint8_t> bytes) {
    if (bytes.size() < PACKET_HEADER_SIZE || bytes.size() > PACKET_MAX ||
        LoadLittleEndian<uint32_t>(bytes.data()) != MAGIC) {
        return std::nullopt;
    }
    const auto kind =
        static_cast<PacketKind>(LoadLittleEndian<uint32_t>(bytes.data() + KIND_OFFSET));
    if (kind < PacketKind::REQUEST || kind > PacketKind::RESPONSE) {
        return std::nullopt;
    }
    return Packet{{kind, LoadLittleEndian<uint64_t>(bytes.data() + SEQUENCE_OFFSET)},
                  bytes.subspan(PACKET_HEADER_SIZE)};
}

}  // namespace Wire
