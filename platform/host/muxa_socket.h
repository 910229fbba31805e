// The messaging library's packets and socket calls: paths, packet headers, accepting a peer with
// its credentials, one packet in, one packet out. Nothing here blocks or keeps state.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/host/unix_socket.h"

namespace PlatformHost {

constexpr size_t MUXA_HEADER_SIZE = 16;
constexpr size_t MUXA_MAX_BODY = 65536;
constexpr size_t MUXA_MAX_PACKET = MUXA_HEADER_SIZE + MUXA_MAX_BODY;

// The kind field of a packet header.
enum class MuxaKind : uint32_t {
    REQUEST = 1,
    CALL = 2,  // a request that wants a response
    RESPONSE = 3,
};

struct MuxaHeader {
    MuxaKind kind = MuxaKind::REQUEST;
    uint64_t sequence = 0;
};

// Writes the header into the first MUXA_HEADER_SIZE bytes of `out`.
void EncodeMuxaHeader(const MuxaHeader& header, std::span<uint8_t, MUXA_HEADER_SIZE> out);

// Nothing when the packet is too short, of another magic or of an unknown kind.
std::optional<MuxaHeader> DecodeMuxaHeader(std::span<const uint8_t> packet);

enum class MuxaRoom { PIPE, SERVER };

// The socket path of a name, the name escaped; empty for a name that cannot be a file name.
std::string MuxaSocketPath(MuxaRoom room, const std::string& name);

// Makes the directories of the sockets. Returns 0 or a negative errno.
int32_t MakeMuxaDirectories();

enum class AcceptResult {
    ACCEPTED,
    REFUSED,    // gone already, or turned away
    NONE,       // nobody is waiting
    EXHAUSTED,  // no descriptor or memory is left; somebody is still waiting
};

struct AcceptedPeer {
    UniqueFd socket;
    ucred credentials{};
};

// Accepts one peer, whoever it is.
AcceptResult AcceptMuxaPeer(int listener, AcceptedPeer& peer);

// True when the peer has ended the connection without a packet that is still to be read.
bool HasNothingToSay(const AcceptedPeer& peer);

enum class ReceiveResult { PACKET, AGAIN, ENDED };

// Reads one packet into `buffer`, which holds MUXA_MAX_PACKET bytes. ENDED also stands for a packet
// that breaks the format.
ReceiveResult ReceiveMuxaPacket(int socket, std::span<uint8_t> buffer, MuxaHeader& header,
                                size_t& bodyLength);

enum class SendResult { SENT, FULL, BROKEN };

// Sends one packet. FULL: the peer has not read enough yet.
SendResult SendMuxaPacket(int socket, const MuxaHeader& header, std::span<const uint8_t> body);

}  // namespace PlatformHost
