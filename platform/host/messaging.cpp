// The functions of platform/messaging.h: they check their arguments and find the endpoint or
// channel of a descriptor.
#include "platform/messaging.h"

#include <sys/types.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "platform/host/event_workers.h"
#include "platform/host/muxa_channel.h"
#include "platform/host/muxa_endpoint.h"
#include "platform/host/muxa_table.h"
#include "platform/host/unix_socket.h"
#include "wire/packet.h"
#include "wire/socket_paths.h"

namespace {

using PlatformHost::EventWorkers;
using PlatformHost::MuxaChannel;
using PlatformHost::MuxaEndpoint;
using PlatformHost::MuxaEndpointSettings;
using PlatformHost::MuxaEntry;
using PlatformHost::MuxaTable;
using Wire::PacketKind;

// Never destroyed: the workers still use the table while the process exits.
MuxaTable& GetTable() {
    static auto* const table = new MuxaTable;
    return *table;
}

// Callers report errno together with the result.
int32_t Fail(int32_t result) {
    if (result < 0) {
        errno = -result;
    }
    return result;
}

int32_t OpenEndpoint(MuxaEndpointSettings settings) {
    settings.path =
        settings.isPipe ? Wire::PipePath(settings.name) : Wire::ServerPath(settings.name);
    if (settings.path.empty() || !settings.callback || settings.maxPeers == 0) {
        return -EINVAL;
    }
    EventWorkers& workers = EventWorkers::Shared();
    int32_t result = PlatformHost::MakeMessagingDirectories();
    result = result == 0 ? workers.Start() : result;
    if (result < 0) {
        return result;
    }
    return std::make_shared<MuxaEndpoint>(std::move(settings), GetTable(), workers)->Open();
}

std::span<const uint8_t> BodyOf(const void* data, size_t length) {
    return {static_cast<const uint8_t*>(data), length};
}

// Returns 0, or a negative errno when these bytes cannot be the body of a packet.
int32_t CheckBody(const void* data, size_t length) {
    if (data == nullptr && length != 0) {
        return -EINVAL;
    }
    return length > Wire::PACKET_BODY_MAX ? -EMSGSIZE : 0;
}

int32_t Send(int32_t fd, PacketKind kind, uint64_t sequence, std::span<const uint8_t> body) {
    const int32_t result = CheckBody(body.data(), body.size());
    if (result < 0) {
        return result;
    }
    const MuxaEntry entry = GetTable().Find(fd);
    return entry.channel == nullptr ? -EBADF : entry.channel->Send({kind, sequence}, body);
}

int32_t Call(int32_t fd, const MuxaRequest* request, MuxaResponse* response,
             std::optional<MuxaChannel::Deadline> deadline) {
    if (request == nullptr || response == nullptr) {
        return -EINVAL;
    }
    const int32_t result = CheckBody(request->data, request->length);
    if (result < 0) {
        return result;
    }
    const MuxaEntry entry = GetTable().Find(fd);
    return entry.channel == nullptr
               ? -EBADF
               : entry.channel->Call(BodyOf(request->data, request->length), *response, deadline);
}

int32_t Close(int32_t fd) {
    const MuxaEntry entry = GetTable().Find(fd);
    if (entry.endpoint == nullptr) {
        return -EBADF;
    }
    return entry.endpoint->HasId(fd) ? entry.endpoint->Close()
                                     : entry.endpoint->ClosePeer(*entry.channel);
}

}  // namespace

int32_t MuxaOpen(const MuxaOpenAttributes& attributes) {
    MuxaEndpointSettings settings;
    settings.name = attributes.name;
    settings.callback = attributes.callback;
    settings.gid = static_cast<gid_t>(attributes.value);
    settings.pid = attributes.pid;
    return Fail(OpenEndpoint(std::move(settings)));
}

int32_t MuxaCreateServer(const MuxaServerAttributes& attributes, uint32_t maxPeers,
                         uint32_t flags) {
    if (flags != 0) {
        return Fail(-EINVAL);
    }
    MuxaEndpointSettings settings;
    settings.name = attributes.name;
    settings.callback = attributes.callback;
    settings.isPipe = false;
    settings.maxPeers = maxPeers;
    return Fail(OpenEndpoint(std::move(settings)));
}

int32_t MuxaSendRequest(int32_t fd, const MuxaRequest* request) {
    if (request == nullptr) {
        return Fail(-EINVAL);
    }
    return Fail(Send(fd, PacketKind::REQUEST, 0, BodyOf(request->data, request->length)));
}

int32_t MuxaSendResponse(int32_t fd, const MuxaResponse* response) {
    if (response == nullptr) {
        return Fail(-EINVAL);
    }
    return Fail(Send(fd, PacketKind::RESPONSE, response->sequence, response->data));
}

int32_t MuxaRPCSync(int32_t fd, MuxaRequest* request, MuxaResponse* response) {
    return Fail(Call(fd, request, response, std::nullopt));
}

int32_t MuxaTimedRPCSync(int32_t fd, MuxaRequest* request, MuxaResponse* response,
                         int32_t timeout) {
    if (timeout < 0) {
        return Fail(-EINVAL);
    }
    return Fail(Call(fd, request, response,
                     std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout)));
}

int32_t MuxaClosePipe(int32_t fd) {
    return Fail(Close(fd));
}
