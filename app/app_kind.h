// The two kinds of managed processes.
#pragma once

namespace ProcMgr::App {

// GENERAL: started on an owner's request. BASE: a base service.
enum class AppKind { GENERAL, BASE };

}  // namespace ProcMgr::App
