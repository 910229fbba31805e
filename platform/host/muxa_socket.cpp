#include "platform/host/muxa_socket.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "platform/host/diagnostics.h"

namespace PlatformHost {

namespace {

constexpr uint32_t MUXA_MAGIC = 0x4158554D;
constexpr size_t KIND_OFFSET = 4;
constexpr size_t SEQUENCE_OFFSET = 8;
constexpr mode_t DIRECTORY_MODE = 0755;
constexpr const char* ROOT_DIRECTORY = "/run/muxa";
constexpr const char* PIPE_DIRECTORY = "/run/muxa/pipe";
constexpr const char* SERVER_DIRECTORY = "/run/muxa/server";

template <typename Number>
void StoreLittleEndian(Number value, uint8_t* out) {
    for (size_t i = 0; i < sizeof(value); ++i) {
        out[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

template <typename Number>
Number LoadLittleEndian(const uint8_t* in) {
    Number value = 0;
    for (size_t i = 0; i < sizeof(value); ++i) {
        value |= static_cast<Number>(in[i]) << (8 * i);
    }
    return value;
}

bool IsPlain(char character) {
    constexpr std::string_view PLAIN =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    return PLAIN.find(character) != std::string_view::npos;
}

int32_t MakeDirectory(const char* path) {
    if (mkdir(path, DIRECTORY_MODE) != 0) {
        return errno == EEXIST ? 0 : -errno;
    }
    // The umask must not lock services out.
    return chmod(path, DIRECTORY_MODE) == 0 ? 0 : -errno;
}

AcceptResult ClassifyAcceptError(int error) {
    switch (error) {
        case EAGAIN:
            return AcceptResult::NONE;
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            return AcceptResult::EXHAUSTED;
        default:
            return AcceptResult::REFUSED;
    }
}

}  // namespace

void EncodeMuxaHeader(const MuxaHeader& header, std::span<uint8_t, MUXA_HEADER_SIZE> out) {
    StoreLittleEndian(MUXA_MAGIC, out.data());
    StoreLittleEndian(static_cast<uint32_t>(header.kind), out.data() + KIND_OFFSET);
    StoreLittleEndian(header.sequence, out.data() + SEQUENCE_OFFSET);
}

std::optional<MuxaHeader> DecodeMuxaHeader(std::span<const uint8_t> packet) {
    if (packet.size() < MUXA_HEADER_SIZE ||
        LoadLittleEndian<uint32_t>(packet.data()) != MUXA_MAGIC) {
        return std::nullopt;
    }
    const auto kind = LoadLittleEndian<uint32_t>(packet.data() + KIND_OFFSET);
    if (kind < static_cast<uint32_t>(MuxaKind::REQUEST) ||
        kind > static_cast<uint32_t>(MuxaKind::RESPONSE)) {
        return std::nullopt;
    }
    return MuxaHeader{static_cast<MuxaKind>(kind),
                      LoadLittleEndian<uint64_t>(packet.data() + SEQUENCE_OFFSET)};
}

std::string MuxaSocketPath(MuxaRoom room, const std::string& name) {
    if (name.empty() || name == "." || name == "..") {
        return {};
    }
    constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string path = room == MuxaRoom::PIPE ? PIPE_DIRECTORY : SERVER_DIRECTORY;
    path += '/';
    for (const char character : name) {
        if (IsPlain(character)) {
            path += character;
            continue;
        }
        const auto byte = static_cast<unsigned char>(character);
        path += '%';
        path += DIGITS[byte >> 4];
        path += DIGITS[byte & 0xF];
    }
    return path;
}

int32_t MakeMuxaDirectories() {
    for (const char* path : {ROOT_DIRECTORY, PIPE_DIRECTORY, SERVER_DIRECTORY}) {
        const int32_t result = MakeDirectory(path);
        if (result < 0) {
            ProcMgr::WriteDiagnostic(LOG_ERR,
                                     "messaging: directory " + std::string(path) +
                                         " cannot be made, errno=" + std::to_string(-result));
            return result;
        }
    }
    return 0;
}

AcceptResult AcceptMuxaPeer(int listener, AcceptedPeer& peer) {
    UniqueFd socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.IsValid()) {
        return ClassifyAcceptError(errno);
    }
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return AcceptResult::REFUSED;
    }
    peer.socket = std::move(socket);
    peer.credentials = credentials;
    return AcceptResult::ACCEPTED;
}

bool HasNothingToSay(const AcceptedPeer& peer) {
    uint8_t byte = 0;
    return recv(peer.socket.Get(), &byte, sizeof(byte), MSG_PEEK | MSG_DONTWAIT) == 0;
}

ReceiveResult ReceiveMuxaPacket(int socket, std::span<uint8_t> buffer, MuxaHeader& header,
                                size_t& bodyLength) {
    ssize_t length = 0;
    do {
        // MSG_TRUNC yields the full length of a packet that does not fit. A peer that went with
        // our packets unread is told once as ECONNRESET, ahead of what it had sent before.
        length = recv(socket, buffer.data(), MUXA_MAX_PACKET, MSG_DONTWAIT | MSG_TRUNC);
    } while (length < 0 && (errno == EINTR || errno == ECONNRESET));
    if (length < 0) {
        return errno == EAGAIN ? ReceiveResult::AGAIN : ReceiveResult::ENDED;
    }
    const auto size = static_cast<size_t>(length);
    if (size > MUXA_MAX_PACKET) {
        return ReceiveResult::ENDED;
    }
    const auto decoded = DecodeMuxaHeader(buffer.first(size));
    if (!decoded) {
        return ReceiveResult::ENDED;
    }
    header = *decoded;
    bodyLength = size - MUXA_HEADER_SIZE;
    return ReceiveResult::PACKET;
}

SendResult SendMuxaPacket(int socket, const MuxaHeader& header, std::span<const uint8_t> body) {
    uint8_t head[MUXA_HEADER_SIZE];
    EncodeMuxaHeader(header, head);
    iovec parts[] = {{head, sizeof(head)}, {const_cast<uint8_t*>(body.data()), body.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    ssize_t sent = 0;
    do {
        sent = sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0) {
        return SendResult::SENT;
    }
    return errno == EAGAIN ? SendResult::FULL : SendResult::BROKEN;
}

}  // namespace PlatformHost
