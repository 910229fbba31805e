#include "message/upload_record.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "wire/little_endian.h"

namespace ProcMgr::Message {
namespace {

using Wire::LoadLittleEndian;
using Wire::StoreLittleEndian;

constexpr size_t VERSION_OFFSET = 0;
constexpr size_t PID_OFFSET = 4;
constexpr size_t RESULT_OFFSET = 4;
constexpr size_t COUNT_OFFSET = 8;
constexpr size_t HEAD_SIZE = 16;
constexpr size_t PATH_OFFSET = HEAD_SIZE + UPLOAD_NAME_SIZE;
constexpr size_t REQUEST_GROUPS_OFFSET = PATH_OFFSET + UPLOAD_PATH_SIZE;
constexpr size_t GROUPS_SIZE = UPLOAD_GROUPS_MAX * UPLOAD_GROUP_SIZE;
static_assert(REQUEST_GROUPS_OFFSET + GROUPS_SIZE == UPLOAD_REQUEST_SIZE);
static_assert(HEAD_SIZE + GROUPS_SIZE == UPLOAD_RESPONSE_SIZE);

bool PutText(std::string_view text, std::span<uint8_t> field) {
    if (text.size() >= field.size() || text.find('\0') != std::string_view::npos) {
        return false;
    }
    std::copy(text.begin(), text.end(), field.begin());
    return true;
}

// Returns the text of a field. Returns an empty text, which is not valid in any field, when the
// field holds no zero byte.
std::string GetText(std::span<const uint8_t> field) {
    const auto end = std::find(field.begin(), field.end(), 0);
    return end == field.end() ? std::string() : std::string(field.begin(), end);
}

// Writes the number of groups to the head of `record`, and the groups from `firstOffset` on.
bool PutGroups(const std::vector<std::string>& groups, std::span<uint8_t> record,
               size_t firstOffset) {
    if (groups.size() > UPLOAD_GROUPS_MAX) {
        return false;
    }
    StoreLittleEndian(static_cast<uint32_t>(groups.size()), record.data() + COUNT_OFFSET);
    size_t offset = firstOffset;
    for (const std::string& group : groups) {
        if (!PutText(group, record.subspan(offset, UPLOAD_GROUP_SIZE))) {
            return false;
        }
        offset += UPLOAD_GROUP_SIZE;
    }
    return true;
}

bool GetGroups(std::span<const uint8_t> record, size_t firstOffset,
               std::vector<std::string>& groups) {
    const auto count = LoadLittleEndian<uint32_t>(record.data() + COUNT_OFFSET);
    if (count > UPLOAD_GROUPS_MAX) {
        return false;
    }
    groups.clear();
    for (size_t i = 0; i < count; ++i) {
        groups.push_back(
            GetText(record.subspan(firstOffset + i * UPLOAD_GROUP_SIZE, UPLOAD_GROUP_SIZE)));
        if (groups.back().empty()) {
            return false;
        }
    }
    return true;
}

// The name becomes part of log lines and must not look like a path.
bool IsName(std::string_view name) {
    return !name.empty() && std::none_of(name.begin(), name.end(), [](char c) {
        const auto byte = static_cast<uint8_t>(c);
        return byte < 0x20 || byte == 0x7F || c == '/';
    });
}

}  // namespace

std::optional<std::vector<uint8_t>> EncodeUploadRequest(const UploadRequest& request) {
    std::vector<uint8_t> record(UPLOAD_REQUEST_SIZE);
    const std::span<uint8_t> bytes(record);
    StoreLittleEndian(UPLOAD_VERSION, record.data() + VERSION_OFFSET);
    StoreLittleEndian(static_cast<uint32_t>(request.pid), record.data() + PID_OFFSET);
    const bool isFitting = PutText(request.name, bytes.subspan(HEAD_SIZE, UPLOAD_NAME_SIZE)) &&
                           PutText(request.path, bytes.subspan(PATH_OFFSET, UPLOAD_PATH_SIZE)) &&
                           PutGroups(request.groups, bytes, REQUEST_GROUPS_OFFSET);
    return isFitting ? std::optional(std::move(record)) : std::nullopt;
}

std::optional<std::vector<uint8_t>> EncodeUploadResponse(const UploadResponse& response) {
    std::vector<uint8_t> record(UPLOAD_RESPONSE_SIZE);
    StoreLittleEndian(UPLOAD_VERSION, record.data() + VERSION_OFFSET);
    StoreLittleEndian(static_cast<uint32_t>(response.result), record.data() + RESULT_OFFSET);
    const bool isFitting = PutGroups(response.groups, record, HEAD_SIZE);
    return isFitting ? std::optional(std::move(record)) : std::nullopt;
}

UploadResult DecodeUploadRequest(std::span<const uint8_t> record, UploadRequest& out) {
    if (record.size() < sizeof(UPLOAD_VERSION)) {
        return UploadResult::BAD_RECORD;
    }
    if (LoadLittleEndian<uint32_t>(record.data() + VERSION_OFFSET) != UPLOAD_VERSION) {
        return UploadResult::OTHER_VERSION;
    }
    if (record.size() != UPLOAD_REQUEST_SIZE) {
        return UploadResult::BAD_RECORD;
    }
    out.pid = static_cast<int32_t>(LoadLittleEndian<uint32_t>(record.data() + PID_OFFSET));
    out.name = GetText(record.subspan(HEAD_SIZE, UPLOAD_NAME_SIZE));
    out.path = GetText(record.subspan(PATH_OFFSET, UPLOAD_PATH_SIZE));
    const bool isGood = out.pid > 0 && IsName(out.name) && out.path.starts_with('/') &&
                        GetGroups(record, REQUEST_GROUPS_OFFSET, out.groups);
    return isGood ? UploadResult::REGISTERED : UploadResult::BAD_RECORD;
}

std::optional<UploadResponse> DecodeUploadResponse(std::span<const uint8_t> record) {
    if (record.size() != UPLOAD_RESPONSE_SIZE ||
        LoadLittleEndian<uint32_t>(record.data() + VERSION_OFFSET) != UPLOAD_VERSION) {
        return std::nullopt;
    }
    const auto result = LoadLittleEndian<uint32_t>(record.data() + RESULT_OFFSET);
    UploadResponse response;
    if (result > static_cast<uint32_t>(UploadResult::TOO_MANY) ||
        !GetGroups(record, HEAD_SIZE, response.groups)) {
        return std::nullopt;
    }
    response.result = static_cast<UploadResult>(result);
    return response;
}

}  // namespace ProcMgr::Message
