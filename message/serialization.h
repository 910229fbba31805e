// The daemon's operations on records: the codecs of message/, with the daemon's log lines and its
// fixed handling of what does not fit. Called by channel/. Every operation is stateless, may be
// called from any thread, reads no byte outside of a record and throws for no input.
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
// line, when an item is longer than a record can carry; the pieces before that item stay.
bool ProcMgrPackAppStateRequest(const std::vector<Message::AppStateInfo>& infos,
                                std::vector<std::pair<uint32_t, std::string>>& pieces);

// Sorts the pieces by length, then text, gathers them into as few records as that order allows and
// appends the records to `out`. Pieces that no record can hold are dropped with a log line.
// False, with a log line, when there are no pieces.
bool ProcMgrCombinePiecesMsg(Message::RequestType type,
                             std::vector<std::pair<uint32_t, std::string>>& pieces,
                             std::vector<Message::RequestMsg>& out);

// Appends one record of `count` items whose joined texts are `body`. When the payload is too long,
// the record is appended without it, but with its length in `size`, and the failure is logged.
void ProcMgrCombineMsg(Message::RequestType type, uint32_t count, const std::string& body,
                       std::vector<Message::RequestMsg>& out);

// Decode a request of the type in their name. Fields that the payload lacks keep their value; items
// beyond the limits are logged and left out. `sender` is the owner that sent the record: a start or
// restart request of `zornmgr` has no dynamic parameters.
void ProcMgrUnpackStartRequest(const Message::RequestMsg* request,
                               std::vector<Message::StartAppInfo>& out, const std::string& sender);
void ProcMgrUnpackRestartRequest(const Message::RequestMsg* request,
                                 std::vector<Message::RestartAppInfo>& out,
                                 const std::string& sender);
void ProcMgrUnpackTermRequest(const Message::RequestMsg* request,
                              std::vector<Message::TermAppInfo>& out);
void ProcMgrUnpackedBaseServiceStateRequest(const Message::RequestMsg* request,
                                            Message::BaseServiceStateInfo& out);
void ProcMgrUnpackedAppExecInfoRequest(const Message::RequestMsg* request,
                                       Message::AppExecInfo& out);
void ProcMgrUnpackMatchDataAndPathRequest(const Message::RequestMsg* request,
                                          Message::StartupCfgInfo& out);
// Decodes the block of dynamic parameters of one item and leaves the stream after it. False, with a
// log line, when a number is beyond its limit: the rest of the request cannot be read then.
bool UnPackDynamicPara(std::istringstream& in, std::map<int, std::vector<std::string>>& out);

}  // namespace ProcMgr::Serialization
