#include "platform/access_manager.h"

// There is no access manager on a plain Linux machine: every registration succeeds.

int ZornInitProc(const AppConfig& /*config*/) {
    return 0;
}

bool ZornNeedsOwnMemory() {
    return false;
}

void ZornRetrieveService() {}
