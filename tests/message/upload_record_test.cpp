// The records of upload registration: exact bytes, the longest texts in both directions, and
// malformed records.
#include "message/upload_record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace ProcMgr::Message {
namespace {

using Bytes = std::vector<uint8_t>;

const UploadRequest REQUEST = {
    0x01020304, "cam era\xC3\xBC", "/usr/bin/camera (deleted)", {"g1", "g2"}};

// From memory of exactly its length, so that the address sanitizer finds a read past the end.
UploadResult Decode(const Bytes& record, UploadRequest& out) {
    const auto copy = std::make_unique<uint8_t[]>(record.size());
    std::copy(record.begin(), record.end(), copy.get());
    return DecodeUploadRequest({copy.get(), record.size()}, out);
}

Bytes RecordOf(size_t length, std::initializer_list<std::pair<size_t, std::string_view>> texts) {
    Bytes record(length);
    for (const auto& [offset, text] : texts) {
        std::copy(text.begin(), text.end(), record.begin() + static_cast<ptrdiff_t>(offset));
    }
    return record;
}

TEST(UploadRecord, HasTheseBytes) {
    EXPECT_EQ(EncodeUploadRequest(REQUEST), RecordOf(2192, {{0, {"\1\0\0\0\4\3\2\1\2\0\0\0", 12}},
                                                            {16, REQUEST.name},
                                                            {144, REQUEST.path},
                                                            {1168, "g1"},
                                                            {1232, "g2"}}));
    EXPECT_EQ(EncodeUploadResponse({UploadResult::NOT_THE_SENDER, {"g1"}}),
              RecordOf(1040, {{0, {"\1\0\0\0\3\0\0\0\1\0\0\0", 12}}, {16, "g1"}}));
}

TEST(UploadRecord, LongestTextsComeBackAndLongerOnesAreRefused) {
    const UploadRequest largest = {INT32_MAX, std::string(127, 'n'), "/" + std::string(1022, 'p'),
                                   std::vector(16, std::string(63, 'g'))};
    UploadRequest decoded{1, "old", "old", {"old"}};
    ASSERT_EQ(Decode(EncodeUploadRequest(largest).value(), decoded), UploadResult::REGISTERED);
    EXPECT_EQ(decoded, largest);
    Bytes tooMany = EncodeUploadRequest(largest).value();
    tooMany[8] = 17;
    EXPECT_EQ(Decode(tooMany, decoded), UploadResult::BAD_RECORD) << "17 groups";
    const UploadResponse response{UploadResult::TOO_MANY, largest.groups};
    EXPECT_EQ(DecodeUploadResponse(EncodeUploadResponse(response).value()), response);

    const std::function<void(UploadRequest&)> changes[] = {
        [](auto& r) { r.name += 'n'; },          [](auto& r) { r.path += 'p'; },
        [](auto& r) { r.groups.back() += 'g'; }, [](auto& r) { r.groups.emplace_back("g"); },
        [](auto& r) { r.name[1] = '\0'; },       [](auto& r) { r.groups[1][1] = '\0'; },
    };
    for (const auto& change : changes) {
        UploadRequest changed = largest;
        change(changed);
        EXPECT_FALSE(EncodeUploadRequest(changed)) << &change - changes;
    }
}

TEST(UploadRecord, MalformedRequestsAreRefused) {
    const Bytes good = EncodeUploadRequest(REQUEST).value();
    UploadRequest decoded;
    for (const size_t length : {0U, 3U, 2191U, 2193U}) {
        Bytes record = good;
        record.resize(length);
        EXPECT_EQ(Decode(record, decoded), UploadResult::BAD_RECORD) << length;
    }
    EXPECT_EQ(Decode(Bytes(4, 2), decoded), UploadResult::OTHER_VERSION) << "whatever its length";
    constexpr auto GOOD = UploadResult::REGISTERED;
    constexpr auto BAD = UploadResult::BAD_RECORD;
    const std::tuple<const char*, ptrdiff_t, size_t, uint8_t, UploadResult> changes[] = {
        {"pid 0", 4, 4, 0, BAD},
        {"pid -1", 4, 4, 0xFF, BAD},
        {"an empty group", 8, 1, 3, BAD},
        {"a group without an end", 1232, 64, 'x', BAD},
        {"no name", 16, 1, 0, BAD},
        {"a name without an end", 16, 128, 'x', BAD},
        {"a line end in the name", 17, 1, '\n', BAD},
        {"a delete in the name", 17, 1, 0x7F, BAD},
        {"a path for a name", 17, 1, '/', BAD},
        {"a relative path", 144, 1, 'x', BAD},
        {"a path without an end", 145, 1023, 'x', BAD},
        {"the gap", 12, 4, 'x', GOOD},
        {"bytes after the name", 100, 44, 'x', GOOD},
        {"bytes after the groups", 1296, 896, 'x', GOOD},
    };
    for (const auto& [what, offset, length, byte, result] : changes) {
        Bytes record = good;
        std::fill_n(record.begin() + offset, length, byte);
        EXPECT_EQ(Decode(record, decoded), result) << what;
        EXPECT_TRUE(result == BAD || decoded == REQUEST) << what;
    }
}

TEST(UploadRecord, MalformedResponsesAreRefused) {
    const Bytes good = EncodeUploadResponse({UploadResult::REGISTERED, {"g1"}}).value();
    EXPECT_TRUE(DecodeUploadResponse(good));
    EXPECT_FALSE(DecodeUploadResponse({}));
    EXPECT_FALSE(DecodeUploadResponse(std::span(good).first(good.size() - 1)));
    // Version, result, number of groups, group.
    const std::pair<size_t, uint8_t> changes[] = {{0, 2}, {4, 6}, {7, 1}, {8, 2}, {16, 0}};
    for (const auto& [offset, value] : changes) {
        Bytes changed = good;
        changed[offset] = value;
        EXPECT_FALSE(DecodeUploadResponse(changed)) << offset << ": " << int{value};
    }
}

}  // namespace
}  // namespace ProcMgr::Message
