// Fuzzes everything that decodes a record which a peer sends to the daemon. The first input byte
// says how: its low four bits are the record's type, then come a bit for a request of `zornmgr`,
// one for a `size` that lies, and one for reading the payload as a dynamic block. The rest is
// payload.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "main/common/log.h"
#include "message/serialization.h"

namespace ProcMgr {

// In place of the system logger; formats, so that a text which does not fit its format is found.
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

// Each text but those of the last list has cost its separator.
template <typename Item>
void CheckItems(const std::vector<Item>& items) {
    Require(items.size() <= ITEMS_MAX, "as many items as are allowed");
    size_t texts = 0;
    for (const Item& item : items) {
        Require(item.argv.size() <= LIST_MAX, "as many arguments as are allowed");
        texts += item.argv.size() + CountTexts(item.dynamicPara);
    }
    Require(texts <= PM_PIPE_BUF_MAX + LIST_MAX, "texts are bounded by the payload");
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
    Texts names;
    const bool isWhole = Serialization::DecodeQueryNames(record, names);
    Require(isWhole || names.empty(), "no name of a query that is refused");
    std::map<std::string, uint32_t> statusByName;
    size_t size = sizeof(uint32_t);
    for (const std::string& name : names) {
        if (statusByName.emplace(name, 4).second) {
            size += 2 * sizeof(uint32_t) + name.size();
        }
    }
    RequestMsg answer;
    const bool isFitting = Serialization::EncodeDetailStatus(statusByName, answer);
    Require(isFitting == (size <= PM_PIPE_BUF_MAX), "an answer that fits is sent");
    Require(!isFitting || answer.size == size, "an answer has its size");
}

void Unpack(const RequestMsg& record, const std::string& sender) {
    switch (record.type) {
        case Message::START_APP: {
            std::vector<Message::StartAppInfo> items;
            Serialization::ProcMgrUnpackStartRequest(&record, items, sender);
            return CheckItems(items);
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
    // On the heap, where a read behind it is seen.
    const auto record = std::make_unique<RequestMsg>();
    record->type = mode & TYPE_BITS;
    record->size = (mode & IS_SIZE_WRONG) != 0 ? UINT64_MAX - size : size - 1;
    std::memcpy(record->data, data + 1, size - 1);
    Unpack(*record, (mode & IS_ZORNMGR) != 0 ? "zornmgr" : "owner");
    return 0;
}
