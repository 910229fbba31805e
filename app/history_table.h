// The histories of general applications by name. They outlive the records, so that the next start
// of an application goes on counting, and so that it is shown how an application has ended. A part
// of GeneralApps, which guards it by its lock.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "app/app_history.h"
#include "app/change_log.h"

namespace ProcMgr::App {

class HistoryTable {
public:
    using Histories = std::map<std::string, std::shared_ptr<AppHistory>>;

    // The number of histories that are kept. In a full table half of those without a record make
    // room: the ones whose last start is longest ago.
    static constexpr size_t SIZE = 1024;

    // `log` must outlive this object.
    explicit HistoryTable(ChangeLog& log) : log_(log) {}

    // The history of the application that these values will start. Allocates nothing for an
    // application that is known and whose facts have not changed.
    std::shared_ptr<AppHistory> Take(const AppSpec& spec, const std::string& owner);

    const Histories& GetAll() const { return histories_; }

private:
    void MakeRoom();
    std::shared_ptr<AppHistory> Make(const AppSpec& spec, const std::string& owner);

    ChangeLog& log_;
    Histories histories_;
};

}  // namespace ProcMgr::App
