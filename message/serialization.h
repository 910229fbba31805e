// Encoding and decoding of what the records carry. Every routine is stateless, may be called from
// any thread, reads no byte outside the record and throws for no input.
#pragma once

#include <cstdint>
#include <map>
#include <sstream>
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

// Decode one request each. What the payload lacks stays at its default; what is beyond the limits
// is logged and left out. A start or restart request of `zornmgr` has no dynamic parameters.
void ProcMgrUnpackStartRequest(const Message::RequestMsg* request,
                               std::vector<Message::StartAppInfo>& out, const std::string& sender);
void ProcMgrUnpackRestartRequest(const Message::RequestMsg* request,
                                 std::vector<Message::RestartAppInfo>& out,
                                 const std::string& sender);
void ProcMgrUnpackTermRequest(const Message::RequestMsg* request,
                              std::vector<Message::TermAppInfo>& out);
void ProcMgrUnpackedAppExecInfoRequest(const Message::RequestMsg* request,
                                       Message::AppExecInfo& out);
void ProcMgrUnpackMatchDataAndPathRequest(const Message::RequestMsg* request,
                                          Message::StartupCfgInfo& out);
// The dynamic block of one item. False, with a log line, when it is not to be used.
bool UnPackDynamicPara(std::istringstream& in, std::map<int, std::vector<std::string>>& out);

// The names of a QUERY_APP_STATE request. False, with `names` empty, when a count or a length runs
// past the payload.
bool DecodeQueryNames(const Message::RequestMsg& request, std::vector<std::string>& names);

// One APP_DETAIL_STATUS_REPORT record. False when the entries do not fit.
bool EncodeDetailStatus(const std::map<std::string, uint32_t>& statusByName,
                        Message::RequestMsg& out);

}  // namespace ProcMgr::Serialization
