#include "main/common/diagnostics.h"

#include <exception>

#include "main/common/log.h"

namespace ProcMgr {
namespace {

thread_local FirstDiagnostic* innermost = nullptr;

}  // namespace

FirstDiagnostic::FirstDiagnostic() : outer_(innermost) {
    innermost = this;
}

FirstDiagnostic::~FirstDiagnostic() {
    innermost = outer_;
}

void LogDiagnostic(int level, const char* text) {
    ProcMgrLog(level, "%s", text);
    if (level > LOG_ERR || innermost == nullptr || !innermost->text_.empty()) {
        return;
    }
    try {
        innermost->text_ = text;
    } catch (const std::exception&) {
        innermost->text_.clear();  // the line is in the log
    }
}

}  // namespace ProcMgr
