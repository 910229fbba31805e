// Fuzzes everything that decodes a record, on the daemon's side and on the owner's side. Decoded
// values are encoded again and must then decode to the same values.
//
// The first input byte selects the decoder: the low four bits are the type of the record, then
// follow a bit for a request of `zornmgr`, a bit for a wrong `size` and a bit for a block of
// dynamic parameters without a record around it. The other bytes are the payload.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "main/common/log.h"
#include "message/report_codec.h"
#include "message/request_codec.h"
#include "message/serialization.h"

namespace ProcMgr {

// Replaces the system logger. Formats the line, so that an argument that does not fit its format is
// found.
void ProcMgrLog(int /*level*/, const char* format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
}

}  // namespace ProcMgr

namespace {

using namespace ProcMgr;
using Message::PM_PIPE_BUF_MAX;
using Message::RequestMsg;
using Texts = std::vector<std::string>;
using Block = std::map<int, Texts>;

constexpr uint8_t TYPE_BITS = 0x0f;
constexpr uint8_t IS_ZORNMGR = 0x10;
constexpr uint8_t IS_SIZE_WRONG = 0x20;
constexpr uint8_t IS_BLOCK = 0x40;
constexpr size_t ITEMS_MAX = 1999;
constexpr size_t LIST_MAX = 1024;

void Require(bool isTrue, const char* what) {
    if (!isTrue) {
        std::fprintf(stderr, "not so: %s\n", what);
        std::abort();
    }
}

size_t CountTexts(const Block& block) {
    size_t count = 0;
    for (const auto& [index, texts] : block) {
        Require(index <= 2 && texts.size() <= 3 * LIST_MAX, "a dynamic block keeps its limits");
        count += texts.size();
    }
    return count;
}

void CheckItems(const std::vector<Message::StartAppInfo>& items) {
    Require(items.size() <= ITEMS_MAX, "as many items as are allowed");
    size_t texts = 0;
    for (const Message::StartAppInfo& item : items) {
        Require(item.argv.size() <= LIST_MAX, "as many arguments as are allowed");
        texts += item.argv.size() + CountTexts(item.dynamicPara);
    }
    // Each text has a separator in the payload, except for the texts of the last list.
    Require(texts <= PM_PIPE_BUF_MAX + LIST_MAX, "texts are bounded by the payload");
}

// Encoded items decode to the same items. An item may be too long to be encoded, because the
// decoder fills a list up to the announced length. Long lists are left out: they would take most of
// the time.
void CheckEncodedItems(const std::vector<Message::StartAppInfo>& items, const std::string& sender) {
    constexpr size_t CHECKED_MAX = 32;
    if (items.size() > CHECKED_MAX) {
        return;
    }
    const auto records = Message::EncodeLaunchRequests(Message::START_APP, items, sender);
    std::vector<Message::StartAppInfo> all;
    for (const RequestMsg& record : records.value_or(Message::Records())) {
        std::vector<Message::StartAppInfo> some;
        Require(Message::DecodeLaunchRequest(record, sender, some).empty(), "no limit is exceeded");
        all.insert(all.end(), some.begin(), some.end());
    }
    Require(!records || all == items, "encoded items decode to the same items");
}

// The dynamic block as plain stream extraction reads it.
bool ReadBlock(std::istringstream& in, Block& block) {
    const auto readNumber = [&in](auto& number) {
        in >> number;
        in.get();
    };
    size_t parameters = 0;
    readNumber(parameters);
    if (parameters > 3) {
        return false;
    }
    for (size_t i = 0; i < parameters; ++i) {
        int index = 0;
        size_t values = 0;
        readNumber(index);
        if (index > 2) {
            return false;
        }
        readNumber(values);
        if (values > LIST_MAX) {
            return false;
        }
        for (size_t j = 0; j < values; ++j) {
            std::string value;
            std::getline(in, value, '#');
            block[index].push_back(value);
        }
    }
    return true;
}

void UnpackBlock(const std::string& payload) {
    std::istringstream in(payload);
    std::istringstream plain(payload);
    Block block;
    Block plainBlock;
    const bool isUsable = Serialization::UnPackDynamicPara(in, block);
    Require(isUsable == ReadBlock(plain, plainBlock), "the result is that of a stream");
    Require(block == plainBlock, "the values are those of a stream");
    std::string next;
    std::string plainNext;
    std::getline(in, next, '#');
    std::getline(plain, plainNext, '#');
    Require(next == plainNext, "what follows is that of a stream");
    Require(CountTexts(block) <= PM_PIPE_BUF_MAX + LIST_MAX, "values are bounded by the payload");
}

void UnpackQuery(const RequestMsg& record) {
    const std::optional<Texts> names = Message::DecodeQuery(record);
    if (!names) {
        return;
    }
    std::map<std::string, uint32_t> statusByName;
    size_t size = sizeof(uint32_t);
    for (const std::string& name : *names) {
        if (statusByName.emplace(name, 4).second) {
            size += 2 * sizeof(uint32_t) + name.size();
        }
    }
    const auto answer = Message::EncodeDetailStatus(statusByName);
    Require(answer.has_value() == (size <= PM_PIPE_BUF_MAX), "an answer that fits is sent");
    Require(!answer || answer->size == size, "an answer has its size");
    const auto query = Message::EncodeQuery(*names);
    Require(query.has_value() == answer.has_value(), "a query with an answer is sent");
    Require(!query || Message::DecodeQuery(*query) == names, "a query decodes to the same names");
}

void UnpackStates(const RequestMsg& record) {
    const auto states = Message::DecodeAppStates(record);
    if (!states) {
        return;
    }
    std::string payload = std::to_string(states->size()) + '#';
    for (const Message::AppStateInfo& state : *states) {
        payload += Message::EncodeAppState(state);
    }
    Require(payload.size() <= PM_PIPE_BUF_MAX, "states are bounded by the payload");
    Require(
        Message::DecodeAppStates(Message::MakeRecord(Message::APP_STATE_REPORT, payload)) == states,
        "encoded states decode to the same states");
}

void UnpackDetailStatus(const RequestMsg& record) {
    const auto statusByName = Message::DecodeDetailStatus(record);
    if (!statusByName) {
        return;
    }
    const auto again = Message::EncodeDetailStatus(*statusByName);
    Require(again && Message::DecodeDetailStatus(*again) == statusByName,
            "an encoded answer decodes to the same answer");
}

void Unpack(const RequestMsg& record, const std::string& sender) {
    switch (record.type) {
        case Message::START_APP: {
            std::vector<Message::StartAppInfo> items;
            Serialization::ProcMgrUnpackStartRequest(&record, items, sender);
            CheckItems(items);
            return CheckEncodedItems(items, sender);
        }
        case Message::RESTART_APP: {
            std::vector<Message::RestartAppInfo> items;
            Serialization::ProcMgrUnpackRestartRequest(&record, items, sender);
            return CheckItems(items);
        }
        case Message::TERM_APP: {
            std::vector<Message::TermAppInfo> items;
            Serialization::ProcMgrUnpackTermRequest(&record, items);
            return Require(items.size() <= ITEMS_MAX, "as many items as are allowed");
        }
        case Message::BASESERVICE_STATE_REPORT: {
            Message::BaseServiceStateInfo info;
            return Serialization::ProcMgrUnpackedBaseServiceStateRequest(&record, info);
        }
        case Message::APP_EXECUTION_REPORT: {
            Message::AppExecInfo info;
            return Serialization::ProcMgrUnpackedAppExecInfoRequest(&record, info);
        }
        case Message::LOAD_STARTUP_CFG:
        case Message::RELOAD_STARTUP_CFG: {
            Message::StartupCfgInfo info;
            Serialization::ProcMgrUnpackMatchDataAndPathRequest(&record, info);
            return Require(info.matchData.size() <= PM_PIPE_BUF_MAX, "pairs are in the payload");
        }
        case Message::QUERY_APP_STATE:
            return UnpackQuery(record);
        case Message::APP_STATE_REPORT:
            return UnpackStates(record);
        case Message::APP_DETAIL_STATUS_REPORT:
            return UnpackDetailStatus(record);
        default:
            return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 1 + PM_PIPE_BUF_MAX) {
        return -1;
    }
    const uint8_t mode = data[0];
    if ((mode & IS_BLOCK) != 0) {
        UnpackBlock({reinterpret_cast<const char*>(data + 1), size - 1});
        return 0;
    }
    // On the heap, so that the address sanitizer finds a read outside of the record.
    const auto record = std::make_unique<RequestMsg>();
    record->type = mode & TYPE_BITS;
    record->size = (mode & IS_SIZE_WRONG) != 0 ? UINT64_MAX - size : size - 1;
    std::memcpy(record->data, data + 1, size - 1);
    Unpack(*record, (mode & IS_ZORNMGR) != 0 ? "zornmgr" : "owner");
    return 0;
}
