// The access-manager library. The daemon registers every process that it starts with this library:
// the child calls it before it executes its program.
#pragma once

#include <string>

struct AppConfig {
    std::string appName;
    std::string execPath;
};

// Registers the calling process. Called between fork and exec: takes no lock and starts no thread.
// `appName`: name of the application or service; `execPath`: path of its program. Returns a
// negative value, with errno set, on failure.
int ZornInitProc(const AppConfig& config);

// Releases what the library holds for the daemon itself. Called once, at the end of the daemon.
void ZornRetrieveService();
