// Fuzzes the records of upload registration. The first input byte has a bit for a response in place
// of a request, and a bit for the length of the record: set, the record is the bytes that follow;
// not set, they are cut or filled up to the right length.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "message/upload_record.h"

namespace {

using namespace ProcMgr::Message;
using Bytes = std::vector<uint8_t>;

constexpr uint8_t IS_RESPONSE = 0x01;
constexpr uint8_t IS_AS_LONG_AS_GIVEN = 0x02;

void Require(bool isTrue, const char* what) {
    if (!isTrue) {
        std::fprintf(stderr, "not so: %s\n", what);
        std::abort();
    }
}

void CheckText(const std::string& text, size_t fieldSize) {
    Require(!text.empty() && text.size() < fieldSize, "a text fits into its field");
    Require(text.find('\0') == std::string::npos, "a text ends at its zero byte");
}

void CheckGroups(const std::vector<std::string>& groups) {
    Require(groups.size() <= UPLOAD_GROUPS_MAX, "as many groups as are allowed");
    for (const std::string& group : groups) {
        CheckText(group, UPLOAD_GROUP_SIZE);
    }
}

void FuzzRequest(const Bytes& record) {
    UploadRequest request;
    const UploadResult result = DecodeUploadRequest(record, request);
    if (result != UploadResult::REGISTERED) {
        return Require(result == UploadResult::BAD_RECORD || result == UploadResult::OTHER_VERSION,
                       "a record is good, bad or of another version");
    }
    Require(request.pid > 0, "a pid is positive");
    CheckText(request.name, UPLOAD_NAME_SIZE);
    CheckText(request.path, UPLOAD_PATH_SIZE);
    CheckGroups(request.groups);
    for (const char c : request.name) {
        const auto byte = static_cast<uint8_t>(c);
        Require(byte >= 0x20 && byte != 0x7F && c != '/', "a name is no path and has no line ends");
    }
    Require(request.path.front() == '/', "a path is absolute");

    const auto encoded = EncodeUploadRequest(request);
    Require(encoded.has_value(), "what was decoded can be encoded");
    UploadRequest again;
    Require(DecodeUploadRequest(*encoded, again) == UploadResult::REGISTERED, "and decoded again");
    Require(again.pid == request.pid && again.name == request.name && again.path == request.path &&
                again.groups == request.groups,
            "to the same request");
}

void FuzzResponse(const Bytes& record) {
    const auto response = DecodeUploadResponse(record);
    if (!response) {
        return;
    }
    CheckGroups(response->groups);
    const auto encoded = EncodeUploadResponse(*response);
    Require(encoded.has_value(), "what was decoded can be encoded");
    const auto again = DecodeUploadResponse(*encoded);
    Require(again.has_value(), "and decoded again");
    Require(again->result == response->result && again->groups == response->groups,
            "to the same response");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return -1;
    }
    const bool isResponse = (data[0] & IS_RESPONSE) != 0;
    // On the heap, so that the address sanitizer finds a read outside of the record.
    Bytes record(data + 1, data + size);
    if ((data[0] & IS_AS_LONG_AS_GIVEN) == 0) {
        record.resize(isResponse ? UPLOAD_RESPONSE_SIZE : UPLOAD_REQUEST_SIZE);
    }
    record.shrink_to_fit();
    if (isResponse) {
        FuzzResponse(record);
    } else {
        FuzzRequest(record);
    }
    return 0;
}
