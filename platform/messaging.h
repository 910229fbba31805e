// The messaging library: pipes between the daemon and named services, and server endpoints that
// many processes connect to. All functions may be called from any thread. Results are 0 or more for
// success, else a negative errno: -11 (EAGAIN) means that the caller may try again, -16 (EBUSY)
// that a callback is running.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// One message, received or to be sent. When it is sent, only `data` and `length` are read.
struct MuxaRequest {
    const void* data = nullptr;
    uint32_t length = 0;
    // Received messages only. The response to a request that wants one has the same `sequence`.
    bool wantsResponse = false;
    uint64_t sequence = 0;
    // Received messages only: the process that connected, as reported by the kernel.
    int32_t peerPid = 0;
    uint32_t peerUid = 0;
    uint32_t peerGid = 0;
};

// The response to a request that wants one.
struct MuxaResponse {
    std::vector<uint8_t> data;
    uint64_t sequence = 0;
};

// Called on a thread of the library for each request of a peer, in the order in which the peer sent
// them. `request` is null, in one last call, when the peer's connection has ended. `name` is the
// name given at opening. For a server, `fd` is the descriptor of one peer, valid until that last
// call.
using MuxaCallback =
    std::function<void(int32_t fd, const MuxaRequest* request, const std::string& name)>;

struct MuxaOpenAttributes {
    std::string name;    // of the process at the other end
    uint32_t value = 0;  // gid of the socket's file, whose members may connect
    // Process of the service. Accepted peers are this process, its descendants and processes of uid
    // 0; with 0, processes of uid 0 only.
    int32_t pid = 0;
    MuxaCallback callback;
    // Settings for the library alone, at their neutral values.
    uint32_t sendCount = 0;
    uint32_t receiveCount = 0;
    int32_t sendFd = -1;
    int32_t receiveFd = -1;
    uint8_t isPersistent = 1;  // after the end of a connection the pipe waits for the next peer
};

struct MuxaServerAttributes {
    std::string name;  // of the endpoint
    MuxaCallback callback;
};

// Opens the pipe to a named process and returns at once; the process may connect later. Returns a
// descriptor of 1 or more, valid until it is closed.
int32_t MuxaOpen(const MuxaOpenAttributes& attributes);

// Creates an endpoint that accepts up to `maxPeers` peers at a time, of each uid other than 0 at
// most 32; `flags` is 0. The connection of a peer without a request for 5 s is ended, with the last
// call of the callback. Returns a descriptor of 1 or more.
int32_t MuxaCreateServer(const MuxaServerAttributes& attributes, uint32_t maxPeers, uint32_t flags);

// Queues one request to the peer; the bytes are copied. -11 when the queue is full.
int32_t MuxaSendRequest(int32_t fd, const MuxaRequest* request);

// Sends the response to the request with the same `sequence`; the bytes are copied. -11 when the
// peer does not read and the queue is full: 16 responses for a peer of a server.
int32_t MuxaSendResponse(int32_t fd, const MuxaResponse* response);

// Sends a request and waits for its response, without limit or for `timeout` milliseconds.
int32_t MuxaRPCSync(int32_t fd, MuxaRequest* request, MuxaResponse* response);
int32_t MuxaTimedRPCSync(int32_t fd, MuxaRequest* request, MuxaResponse* response, int32_t timeout);

// Closes a pipe or a server. Returns -16 while one of its callbacks is running. After this result
// no further callback starts and no peer is accepted, so that a later call succeeds as soon as the
// running callbacks have returned. After a result of 0 or more, no callback runs or will run.
int32_t MuxaClosePipe(int32_t fd);
