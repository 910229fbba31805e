// The messaging library: pipes between the daemon and named services, and server endpoints that
// many processes connect to. All calls may be made from any thread. Results are 0 or more for
// success, else a negative errno; -11 (EAGAIN) means "try again", -16 (EBUSY) "busy".
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// One message, in or out. Outgoing: only `data` and `length` are read.
struct MuxaRequest {
    const void* data = nullptr;
    uint32_t length = 0;
    // Incoming only. `sequence` goes unchanged into the response to a request that wants one.
    bool wantsResponse = false;
    uint64_t sequence = 0;
    // Incoming only: who sent it, by the kernel's word.
    int32_t peerPid = 0;
    uint32_t peerUid = 0;
    uint32_t peerGid = 0;
};

// The answer to a request that wanted one.
struct MuxaResponse {
    std::vector<uint8_t> data;
    uint64_t sequence = 0;
};

// Called on a thread of the library for each request, in the order sent; `request` is null, once,
// when the peer's connection has ended. `name` is the name given at opening. For a server, `fd`
// stands for one peer until that call.
using MuxaCallback =
    std::function<void(int32_t fd, const MuxaRequest* request, const std::string& name)>;

struct MuxaOpenAttributes {
    std::string name;    // of the process at the other end
    uint32_t value = 0;  // gid of the socket's file: whose members may open it at all
    // Process of the service: the peer is this process, a descendant of it, or of uid 0. 0: of uid
    // 0 only.
    int32_t pid = 0;
    MuxaCallback callback;
    // Tuning that only the library reads, at its neutral values.
    uint32_t sendCount = 0;
    uint32_t receiveCount = 0;
    int32_t sendFd = -1;
    int32_t receiveFd = -1;
    uint8_t isPersistent = 1;  // the pipe waits for the next peer when one has gone
};

struct MuxaServerAttributes {
    std::string name;  // of the endpoint
    MuxaCallback callback;
};

// Opens the pipe to a named process and returns at once, whether or not the process is there.
// Returns a descriptor of 1 or more, valid until it is closed.
int32_t MuxaOpen(const MuxaOpenAttributes& attributes);

// Creates an endpoint that accepts up to `maxPeers` peers at a time, of each uid other than 0 at
// most 32; `flags` is 0. A peer that makes no request for 5 s is sent away, and the callback told.
// Returns a descriptor of 1 or more.
int32_t MuxaCreateServer(const MuxaServerAttributes& attributes, uint32_t maxPeers, uint32_t flags);

// Queues one request to the peer; the bytes are copied. -11 when the queue is full.
int32_t MuxaSendRequest(int32_t fd, const MuxaRequest* request);

// Answers the request whose sequence the response carries. -11 when the peer does not read and the
// queue is full: 16 answers for a peer of a server.
int32_t MuxaSendResponse(int32_t fd, const MuxaResponse* response);

// Sends a request and waits for its response, for ever or for `timeout` milliseconds.
int32_t MuxaRPCSync(int32_t fd, MuxaRequest* request, MuxaResponse* response);
int32_t MuxaTimedRPCSync(int32_t fd, MuxaRequest* request, MuxaResponse* response, int32_t timeout);

// Closes a pipe or a server. -16 while a callback of it is running: from then on no further
// callback of it starts and no peer is let in, so that the next try succeeds as soon as the
// callbacks that were running have returned. Once it returns 0 or more, no callback of it runs or
// will run.
int32_t MuxaClosePipe(int32_t fd);
