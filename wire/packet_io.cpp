#include "wire/packet_io.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstddef>

namespace Wire {

SendResult SendPacket(int socket, const PacketHeader& header, std::span<const uint8_t> body) {
    std::array<uint8_t, PACKET_HEADER_SIZE> head{};
    EncodePacketHeader(header, head);
    // sendmsg() reads only: that iovec has no const is its interface.
    std::array<iovec, 2> parts{
        {{head.data(), head.size()}, {const_cast<uint8_t*>(body.data()), body.size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    ssize_t sent = 0;
    do {
        sent = sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0) {
        return SendResult::SENT;
    }
    return errno == EAGAIN ? SendResult::FULL : SendResult::BROKEN;
}

ReceiveResult ReceivePacket(int socket, std::span<uint8_t> buffer, Packet& packet) {
    ssize_t length = 0;
    do {
        // With MSG_TRUNC the result is the full length of a packet that is longer than the buffer.
        // When a peer has closed its end with packets unread, the first receive after that fails
        // with ECONNRESET; the packets that the peer had sent before can still be received.
        length = recv(socket, buffer.data(), PACKET_MAX, MSG_DONTWAIT | MSG_TRUNC);
    } while (length < 0 && (errno == EINTR || errno == ECONNRESET));
    if (length < 0) {
        return errno == EAGAIN ? ReceiveResult::NONE : ReceiveResult::ENDED;
    }
    const auto size = static_cast<size_t>(length);
    const auto decoded =
        size <= PACKET_MAX ? DecodePacket(buffer.first(size)) : std::optional<Packet>();
    if (!decoded) {
        return ReceiveResult::ENDED;
    }
    packet = *decoded;
    return ReceiveResult::PACKET;
}

}  // namespace Wire
