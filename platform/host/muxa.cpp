// The calls of platform/messaging.h: checks of what is passed in, and the way from a descriptor to
// what it stands for.
#include <sys/types.h>

#include <cerrno>
#include <chrono>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "platform/host/muxa_channel.h"
#include "platform/host/muxa_endpoint.h"
#include "platform/host/muxa_socket.h"
#include "platform/host/muxa_workers.h"
#include "platform/messaging.h"

namespace {

using PlatformHost::MuxaChannel;
using PlatformHost::MuxaEndpoint;
using PlatformHost::MuxaEntry;
using PlatformHost::MuxaKind;
using PlatformHost::MuxaRoom;

struct Library {
    PlatformHost::MuxaTable table;
    PlatformHost::MuxaWorkers workers{
        [this](uint64_t token, std::span<uint8_t> buffer) { Dispatch(token, buffer); }};

    void Dispatch(uint64_t token, std::span<uint8_t> buffer);
};

void Library::Dispatch(uint64_t token, std::span<uint8_t> buffer) {
    const auto id = static_cast<int32_t>(token & std::numeric_limits<int32_t>::max());
    const MuxaEntry entry = table.Find(id);
    if (entry.endpoint == nullptr) {
        return;  // closed meanwhile
    }
    if ((token & MuxaEndpoint::LISTENER_TOKEN) != 0) {
        entry.endpoint->OnConnection();
    } else if ((token & MuxaEndpoint::TIMER_TOKEN) != 0) {
        entry.endpoint->OnTimer();
    } else if (entry.channel != nullptr && entry.channel->OnReady(buffer)) {
        entry.endpoint->PeerEnded(id);
    }
}

// Never destroyed: the workers still use it while the process exits.
Library& GetLibrary() {
    static Library* const library = new Library;
    return *library;
}

// Callers report errno beside the result.
int32_t Fail(int32_t result) {
    if (result < 0) {
        errno = -result;
    }
    return result;
}

int32_t OpenEndpoint(MuxaRoom room, PlatformHost::MuxaEndpointSettings settings) {
    settings.isPipe = room == MuxaRoom::PIPE;
    settings.path = PlatformHost::MuxaSocketPath(room, settings.name);
    if (settings.path.empty() || !settings.callback || settings.maxPeers == 0) {
        return -EINVAL;
    }
    int32_t result = PlatformHost::MakeMuxaDirectories();
    if (result < 0) {
        return result;
    }
    Library& library = GetLibrary();
    result = library.workers.Start();
    if (result < 0) {
        return result;
    }
    return std::make_shared<MuxaEndpoint>(std::move(settings), library.table, library.workers)
        ->Open();
}

std::span<const uint8_t> BodyOf(const void* data, size_t length) {
    return {static_cast<const uint8_t*>(data), length};
}

// 0, or why these bytes cannot be the body of a packet.
int32_t CheckBody(const void* data, size_t length) {
    if (data == nullptr && length != 0) {
        return -EINVAL;
    }
    return length > PlatformHost::MUXA_MAX_BODY ? -EMSGSIZE : 0;
}

int32_t Send(int32_t fd, MuxaKind kind, uint64_t sequence, std::span<const uint8_t> body) {
    const int32_t result = CheckBody(body.data(), body.size());
    if (result < 0) {
        return result;
    }
    const MuxaEntry entry = GetLibrary().table.Find(fd);
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
    const MuxaEntry entry = GetLibrary().table.Find(fd);
    return entry.channel == nullptr
               ? -EBADF
               : entry.channel->Call(BodyOf(request->data, request->length), *response, deadline);
}

int32_t Close(int32_t fd) {
    const MuxaEntry entry = GetLibrary().table.Find(fd);
    if (entry.endpoint == nullptr) {
        return -EBADF;
    }
    return entry.endpoint->HasId(fd) ? entry.endpoint->Close()
                                     : entry.endpoint->ClosePeer(*entry.channel);
}

}  // namespace

int32_t MuxaOpen(const MuxaOpenAttributes& attributes) {
    PlatformHost::MuxaEndpointSettings settings;
    settings.name = attributes.name;
    settings.callback = attributes.callback;
    settings.gid = static_cast<gid_t>(attributes.value);
    settings.pid = attributes.pid;
    return Fail(OpenEndpoint(MuxaRoom::PIPE, std::move(settings)));
}

int32_t MuxaCreateServer(const MuxaServerAttributes& attributes, uint32_t maxPeers,
                         uint32_t flags) {
    if (flags != 0) {
        return Fail(-EINVAL);
    }
    PlatformHost::MuxaEndpointSettings settings;
    settings.name = attributes.name;
    settings.callback = attributes.callback;
    settings.maxPeers = maxPeers;
    return Fail(OpenEndpoint(MuxaRoom::SERVER, std::move(settings)));
}

int32_t MuxaSendRequest(int32_t fd, const MuxaRequest* request) {
    if (request == nullptr) {
        return Fail(-EINVAL);
    }
    return Fail(Send(fd, MuxaKind::REQUEST, 0, BodyOf(request->data, request->length)));
}

int32_t MuxaSendResponse(int32_t fd, const MuxaResponse* response) {
    if (response == nullptr) {
        return Fail(-EINVAL);
    }
    return Fail(Send(fd, MuxaKind::RESPONSE, response->sequence, response->data));
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
