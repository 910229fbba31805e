// Creates a child that shares the memory of the caller: the part of ChildSlots that depends on the
// processor.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace ProcMgr::App {

// False where such a child is not supported: on other processors, and under sanitizers, whose
// run-time libraries the child would change.
extern const bool MAY_SHARE_MEMORY;

// The thread-local storage of the calling thread, in the form that the kernel takes. Null where
// MAY_SHARE_MEMORY is false.
void* GetThreadPointer();

struct SharedChild {
    void* stack = nullptr;  // the lowest address
    size_t stackSize = 0;   // in bytes
    void* threadPointer = nullptr;
    // The kernel writes the pid of the child before it runs. When the child no longer uses the
    // memory, the kernel writes 0 and wakes a futex waiter.
    pid_t* word = nullptr;
    int (*run)(void* argument) = nullptr;  // does not return
    void* argument = nullptr;
};

// The child has the default action for every signal that the caller handles; ignored signals stay
// ignored. Returns the pid, or -1 with errno: ENOSYS or EINVAL on kernels before 5.5, EPERM from a
// filter of system calls. The caller has blocked all signals.
pid_t CloneWithoutHandlers(const SharedChild& child);
// The same, but the child has the handlers of the caller.
pid_t CloneWithHandlers(const SharedChild& child);

}  // namespace ProcMgr::App
