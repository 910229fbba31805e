#include "resource/group_members.h"

#include <algorithm>

#include "main/common/line_reader.h"
#include "main/common/numbers.h"

namespace ProcMgr {

bool GroupMembers::Contains(const std::string& path, int32_t tid) {
    const std::optional<Ids>& ids = Read(path);
    return ids && std::binary_search(ids->begin(), ids->end(), tid);
}

const std::optional<GroupMembers::Ids>& GroupMembers::Read(const std::string& path) {
    const auto [group, isNew] = groups_.try_emplace(path);
    if (!isNew) {
        return group->second;
    }
    LineReader file(path);
    if (!file.IsOpen()) {
        return group->second;
    }
    Ids& ids = group->second.emplace();
    while (const auto line = file.Next()) {
        ids.push_back(ParseLeadingNumber<int32_t>(*line).value_or(0));
    }
    // The kernel lists the ids in no particular order.
    std::sort(ids.begin(), ids.end());
    return group->second;
}

}  // namespace ProcMgr
