#include "wire/mutex.h"

#if defined(PROCMGR_CHECKED)
#include <cstdio>
#include <cstdlib>

namespace Wire {

void CheckHeldMutexes(const char* what, int allowed) {
    if (HeldMutexes::Count() > allowed) {
        std::fprintf(stderr, "a mutex is held where the thread may wait for %s\n", what);
        std::abort();
    }
}

}  // namespace Wire
#endif
