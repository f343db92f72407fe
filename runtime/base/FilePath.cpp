// Paths as texts.
#include "base/FilePath.h"

namespace base {
namespace {

constexpr size_t kMaxNamePartBytes = 64;

bool IsPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '.';
}

}  // namespace

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string FileNameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);  // npos + 1 is the beginning
}

std::string FileNamePart(const std::string& name) {
    std::string part;
    for (const char c : name) part += IsPlain(c) ? c : '_';
    if (part.empty() || part[0] == '.') part.insert(0, "_");
    return part.substr(0, kMaxNamePartBytes);
}

}  // namespace base
