// Encoding and decoding of what the records carry. Every routine is stateless, may be called from
// any thread, reads no byte outside the record and throws for no input.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "message/request_msg.h"

namespace ProcMgr::Serialization {

// Encodes each item as one piece {length in bytes, text} at the end of `pieces`. False, with a log
// line, when an item is longer than a record can carry.
bool ProcMgrPackAppStateRequest(const std::vector<Message::AppStateInfo>& infos,
                                std::vector<std::pair<uint32_t, std::string>>& pieces);

// Sorts the pieces by length, then text, gathers them into as few records as that order allows and
// appends the records to `out`. Pieces that no record can hold are dropped with a log line.
// False, with a log line, when there are no pieces.
bool ProcMgrCombinePiecesMsg(Message::RequestType type,
                             std::vector<std::pair<uint32_t, std::string>>& pieces,
                             std::vector<Message::RequestMsg>& out);

// Appends one record of `count` items whose joined texts are `body`.
void ProcMgrCombineMsg(Message::RequestType type, uint32_t count, const std::string& body,
                       std::vector<Message::RequestMsg>& out);

// Decodes a base service's state report; what the payload lacks stays at its default.
void ProcMgrUnpackedBaseServiceStateRequest(const Message::RequestMsg* request,
                                            Message::BaseServiceStateInfo& out);

}  // namespace ProcMgr::Serialization
