// The access-manager library. The daemon registers every process that it starts with this library:
// the child calls it before it executes its program.
#pragma once

#include <string>

struct AppConfig {
    std::string appName;
    std::string execPath;
};

// Registers the calling process. Called in a child before it executes its program: takes no lock
// and starts no thread. `appName`: name of the application or service; `execPath`: path of its
// program. Returns a negative value, with errno set, on failure.
int ZornInitProc(const AppConfig& config);

// Whether ZornInitProc() has to run in a process with memory of its own, which makes every start
// slower. When false, it may run in a child that still shares the memory of the daemon, while the
// threads of the daemon run and even during ZornRetrieveService(): it then makes system calls only,
// and none that the kernel refuses to a process whose memory is shared; allocates no memory, throws
// nothing, needs no more than 128 KiB of stack, neither reads nor changes the environment, and
// changes no variable but errno. Constant.
bool ZornNeedsOwnMemory();

// Releases what the library holds for the daemon itself. Called once, at the end of the daemon.
void ZornRetrieveService();
