// The libc calls of the module, answered by the scripted platform. Linked with -Wl,--wrap=NAME.
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "Platform.h"

using doubles::P;

extern "C" {

time_t __real_time(time_t* out);
long __real_sysconf(int name);

time_t __wrap_time(time_t* out) {
    if (!P().clockScripted) return __real_time(out);
    if (P().journalTime) P().Record("time()");
    if (out != nullptr) *out = P().now;
    return P().now;
}

int __wrap_uname(struct utsname* name) {
    P().Record("uname()");
    ++P().kernel.unameCalls;
    memset(name, 0, sizeof *name);
    strncpy(name->release, P().kernel.release.c_str(), sizeof name->release - 1);
    return P().kernel.unameResult;  // also what a failed call left behind is none of the caller's
}

long __wrap_sysconf(int name) {
    if (name != _SC_NPROCESSORS_CONF) return __real_sysconf(name);
    P().Record("sysconf(_SC_NPROCESSORS_CONF)");
    ++P().kernel.sysconfCalls;
    return P().kernel.configuredCpus;
}

pid_t __wrap_getpid() {
    return P().kernel.pid;
}

int __wrap_access(const char* path, int mode) {
    (void)mode;
    P().Record(std::string("access(") + path + ")");
    return P().files.existing.count(path) != 0 || P().files.content.count(path) != 0 ? 0 : -1;
}

int __wrap_getrusage(int who, struct rusage* usage) {
    // The module counts its own faults only: any other question fails as it does for a value that is none.
    if (who != RUSAGE_SELF) return -1;
    if (P().kernel.getrusageResult != 0) return P().kernel.getrusageResult;
    memset(usage, 0, sizeof *usage);
    usage->ru_majflt = P().kernel.majorFaults.Next();
    return 0;
}

}  // extern "C"
