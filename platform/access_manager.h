// The access-manager library: a process that the daemon starts is registered with it, in the child,
// before its program is executed.
#pragma once

#include <string>

struct AppConfig {
    std::string appName;
    std::string execPath;
};

// Registers the calling process. Called between fork and exec: takes no lock and starts no thread.
// Returns a negative value, with errno set, on failure.
int ZornInitProc(const AppConfig& config);

// Gives back what the daemon itself holds there; called once, at the end of the daemon.
void ZornRetrieveService();
