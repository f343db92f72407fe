// A comparison of identities.
#include "JournalStream.h"

#include <sys/stat.h>

#include <string>

namespace agent {

bool IsJournalStream(const char* variable, int fd) {
    struct stat info {};
    if (variable == nullptr || fstat(fd, &info) != 0) return false;
    return std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino) == variable;
}

}  // namespace agent
