// The records of upload registration: a process that the daemon did not start, or that wants more
// than it got at its start, asks the "pmupload" server for the share-pool groups it may use.
// Shared by the daemon and by the client library.
//
// Both records have a fixed length. Integers are little-endian. A text ends with a zero byte inside
// of its field; what is behind that, reserved fields and the groups beyond the count are written as
// 0 and ignored by the receiver.
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
// With the zero byte.
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
    // Wanted, each not empty; an empty list: all that name the process.
    std::vector<std::string> groups;
};

enum class UploadResult : uint32_t {
    REGISTERED = 0,
    BAD_RECORD = 1,      // its length or a field of it is wrong
    OTHER_VERSION = 2,   // the daemon speaks UPLOAD_VERSION only
    NOT_THE_SENDER = 3,  // pid or path are not those of the process that sent the record
    NOT_ITS_NAME = 4,    // the name belongs to another process, or only to what the daemon starts
    TOO_MANY = 5,        // the daemon keeps no more registrations
};

struct UploadResponse {
    UploadResult result = UploadResult::BAD_RECORD;
    std::vector<std::string> groups;  // that the process now belongs to
};

// Nothing when a text or the list of groups is too long, or a text holds a zero byte. The other
// demands on a text are for the receiver to check.
std::optional<std::vector<uint8_t>> EncodeUploadRequest(const UploadRequest& request);
std::optional<std::vector<uint8_t>> EncodeUploadResponse(const UploadResponse& response);

// What a record is found to be. `out` is complete only after REGISTERED, which here means: well
// formed; else the result is BAD_RECORD or OTHER_VERSION. The version comes first: a record of
// another one may have another length.
UploadResult DecodeUploadRequest(std::span<const uint8_t> record, UploadRequest& out);
// Nothing for a record that is not well formed.
std::optional<UploadResponse> DecodeUploadResponse(std::span<const uint8_t> record);

}  // namespace ProcMgr::Message
