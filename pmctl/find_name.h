// Finds services and applications by their names, and the names that are meant when there is none.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

// The service, then the application of that name: both exist when both have it.
std::vector<const Service*> FindNamed(const Snapshot& snapshot, std::string_view name);

// Whether an event with the name `inEvent` is about `name`: events keep only the begin of a long
// name.
bool IsNameInEvent(std::string_view inEvent, std::string_view name);

// At most three names that differ from `name` in few characters or contain it, the nearest first.
std::vector<std::string> NearestNames(const Snapshot& snapshot, std::string_view name);

// Throws CommandError with EXIT_NO: there is none of that name. Names the nearest.
[[noreturn]] void FailUnknown(const Snapshot& snapshot, std::string_view name);

}  // namespace ProcMgr::Pmctl
