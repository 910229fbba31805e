// What the status endpoint shows of an application's manifest values. An object does not change, so
// the containers share it with the status thread, which reads it without a lock.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "app/app_spec.h"
#include "platform/manifest.h"

namespace ProcMgr::App {

struct AppFacts {
    // Of a base service.
    explicit AppFacts(const ApplicationManifest& manifest);
    // Of a general application.
    AppFacts(const AppSpec& spec, const std::string& ownerName);

    // Whether the facts of a general application are those of these values.
    bool IsOf(const AppSpec& spec, const std::string& ownerName) const;

    std::string name;
    std::string owner;  // empty for a base service
    std::string policy;
    int32_t priority = AppSpec::NO_PRIORITY;
    bool isReporting = false;
    bool hasHeartBeat = false;
    std::string execPath;
    uint32_t uid = 0;
    uint32_t gid = 0;
    std::set<std::string> depends;
    std::shared_ptr<const AppGroups> groups;  // never null
    std::vector<uint32_t> cores;
};

}  // namespace ProcMgr::App
