// The records of upload registration: a process that the daemon did not start, or that needs more
// groups than it got at its start, asks the "pmupload" server for the share-pool groups that it may
// use. Encoded and decoded by the daemon and by the client library. Pure functions for any thread.
//
// Both records have a fixed length. Integers are little-endian. A text ends with a zero byte inside
// of its field. The bytes after that zero byte, the reserved fields and the groups after the count
// are written as 0 and ignored by the receiver.
//
//   request                                response
//   0     version, 32 bits                 0   version, 32 bits
//   4     pid, signed 32 bits              4   an UploadResult, 32 bits
//   8     groups in use, 32 bits           8   groups in use, 32 bits
//   12    reserved                         12  reserved
//   16    name, 128 bytes                  16  16 groups of 64 bytes
//   144   path of the executable, 1024
//   1168  16 groups of 64 bytes
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ProcMgr::Message {

inline constexpr const char* UPLOAD_SERVER = "pmupload";
inline constexpr uint32_t UPLOAD_VERSION = 1;

inline constexpr size_t UPLOAD_GROUPS_MAX = 16;
// Bytes of a field, with the zero byte.
inline constexpr size_t UPLOAD_NAME_SIZE = 128;
inline constexpr size_t UPLOAD_PATH_SIZE = 1024;
inline constexpr size_t UPLOAD_GROUP_SIZE = 64;

inline constexpr size_t UPLOAD_REQUEST_SIZE =
    16 + UPLOAD_NAME_SIZE + UPLOAD_PATH_SIZE + UPLOAD_GROUPS_MAX * UPLOAD_GROUP_SIZE;
inline constexpr size_t UPLOAD_RESPONSE_SIZE = 16 + UPLOAD_GROUPS_MAX * UPLOAD_GROUP_SIZE;

struct UploadRequest {
    int32_t pid = 0;   // of the sender, positive
    std::string name;  // not empty, no '/' and no control character
    std::string path;  // of the executable, absolute, as the kernel names it
    // The groups asked for, each not empty. An empty list asks for all groups whose configuration
    // names the process.
    std::vector<std::string> groups;

    bool operator==(const UploadRequest&) const = default;
};

enum class UploadResult : uint32_t {
    REGISTERED = 0,
    BAD_RECORD = 1,      // the length of the record or one of its fields is wrong
    OTHER_VERSION = 2,   // the daemon accepts UPLOAD_VERSION only
    NOT_THE_SENDER = 3,  // pid or path are not those of the process that sent the record
    NOT_ITS_NAME = 4,    // the name belongs to another process or to one of the daemon's own
    TOO_MANY = 5,        // the daemon keeps no more registrations
};

struct UploadResponse {
    UploadResult result = UploadResult::BAD_RECORD;
    std::vector<std::string> groups;  // the groups that the process now belongs to

    bool operator==(const UploadResponse&) const = default;
};

// Nothing when a text or the list of groups is too long, or a text holds a zero byte. The receiver
// checks the other conditions.
std::optional<std::vector<uint8_t>> EncodeUploadRequest(const UploadRequest& request);
std::optional<std::vector<uint8_t>> EncodeUploadResponse(const UploadResponse& response);

// REGISTERED for a well-formed record, else BAD_RECORD or OTHER_VERSION. `out` is complete only
// after REGISTERED. The version is checked first: records of another version may have another
// length.
UploadResult DecodeUploadRequest(std::span<const uint8_t> record, UploadRequest& out);
// Nothing for a record that is not well formed.
std::optional<UploadResponse> DecodeUploadResponse(std::span<const uint8_t> record);

}  // namespace ProcMgr::Message
