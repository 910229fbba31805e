// The packets of the messaging library: exact bytes in both directions, bytes that are no packet,
// and the socket calls at the edges of a connection. Also the paths of the sockets.
#include "wire/packet.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>

#include "wire/packet_io.h"
#include "wire/socket_paths.h"
#include "wire/unique_fd.h"

namespace Wire {
namespace {

using Bytes = std::vector<uint8_t>;

const Bytes GOOD = {'M',  'U',  'X',  'A',  2,    0,    0,    0,      // magic, kind
                    0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};  // sequence
constexpr PacketHeader CALL{PacketKind::CALL, 0x1122334455667788};

TEST(Packet, HeaderInBothDirections) {
    Bytes bytes(16);
    EncodePacketHeader(CALL, std::span<uint8_t, 16>(bytes));
    EXPECT_EQ(bytes, GOOD);
    bytes.push_back('b');
    const auto packet = DecodePacket(bytes);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->header.kind, CALL.kind);
    EXPECT_EQ(packet->header.sequence, CALL.sequence);
    EXPECT_THAT(packet->body, testing::ElementsAre('b'));
}

TEST(Packet, BytesThatAreNoPacketAreRefused) {
    for (size_t length = 0; length < GOOD.size(); ++length) {
        // In memory of exactly its length, so that the address sanitizer finds a read past the end.
        const auto cut = std::make_unique<uint8_t[]>(length);
        std::copy_n(GOOD.begin(), length, cut.get());
        EXPECT_FALSE(DecodePacket({cut.get(), length})) << length;
    }
    const std::pair<size_t, uint8_t> changes[] = {
        {0, 'm'}, {1, 'u'}, {2, 'x'}, {3, 'a'}, {4, 0}, {4, 4}, {5, 1}, {7, 0x80},
    };
    for (const auto& [offset, value] : changes) {
        Bytes changed = GOOD;
        changed[offset] = value;
        EXPECT_FALSE(DecodePacket(changed)) << offset << ": " << int{value};
    }
    Bytes large = GOOD;
    large.resize(16 + 65536);
    EXPECT_TRUE(DecodePacket(large));
    large.push_back(0);
    EXPECT_FALSE(DecodePacket(large));
}

TEST(Packet, TravelsOverASocketUntilTheConnectionEnds) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd near(ends[0]);
    UniqueFd far(ends[1]);
    Bytes buffer(PACKET_MAX);
    Packet packet;
    EXPECT_EQ(ReceivePacket(near.Get(), buffer, packet), ReceiveResult::NONE);
    ASSERT_EQ(SendPacket(far.Get(), {}, Bytes(PACKET_BODY_MAX + 1)), SendResult::SENT);
    EXPECT_EQ(ReceivePacket(near.Get(), buffer, packet), ReceiveResult::ENDED) << "too long";
    while (SendPacket(near.Get(), {}, {}) == SendResult::SENT) {
    }
    EXPECT_EQ(SendPacket(near.Get(), {}, {}), SendResult::FULL);
    // The far end is closed with packets unread: what it has sent before can still be received.
    ASSERT_EQ(SendPacket(far.Get(), CALL, Bytes(PACKET_BODY_MAX)), SendResult::SENT);
    far.Reset();
    EXPECT_EQ(SendPacket(near.Get(), {}, {}), SendResult::BROKEN);
    EXPECT_EQ(ReceivePacket(near.Get(), buffer, packet), ReceiveResult::PACKET);
    EXPECT_EQ(packet.body.size(), PACKET_BODY_MAX);
    EXPECT_EQ(ReceivePacket(near.Get(), buffer, packet), ReceiveResult::ENDED);
}

TEST(SocketPaths, EscapeWhatNoFileNameHas) {
    EXPECT_EQ(PipePath(std::string("../a\0b", 6)), "/run/muxa/pipe/..%2Fa%00b");
    EXPECT_EQ(PipePath("."), "");
    EXPECT_EQ(PipePath(".."), "");
    EXPECT_EQ(ServerPath("a.B-c_9 %\xC3\xBC"), "/run/muxa/server/a.B-c_9%20%25%C3%BC");
}

}  // namespace
}  // namespace Wire
