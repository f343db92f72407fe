// Which names may become a part of file names, of control groups and of a command line.
#pragma once

#include <string>

namespace agent {

/// What a refused name is told, behind the name.
constexpr char kPlainNameRule[] = ": letters, digits, '.', '_' and '-' only, at most 64";

/// Pure.
inline bool IsPlainName(const std::string& name) {
    constexpr size_t kMaxNameLength = 64;
    constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
    return !name.empty() && name.size() <= kMaxNameLength && name[0] != '.' &&
           name.find_first_not_of(kLetters) == std::string::npos;
}

}  // namespace agent
