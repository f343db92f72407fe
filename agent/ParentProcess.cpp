// Death signal and the look at the parent that closes the gap before it.
#include "ParentProcess.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace agent {

bool ParentIsThere(int parentPid) {
    return parentPid == 0 || getppid() == parentPid;
}

bool EndWithParent(int parentPid) {
    if (parentPid == 0) return true;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    return ParentIsThere(parentPid);  // it may have ended before the line above took effect
}

}  // namespace agent
