// Paths as texts. Pure.
#pragma once

#include <string>

namespace base {

/// "/a/b" -> "/a", "/a" -> "/", "a" -> ".".
std::string DirectoryOf(const std::string& path);

/// "/a/b" -> "b"; empty when the path ends with a slash.
std::string FileNameOf(const std::string& path);

/// A name as a part of a file name: characters other than letters, digits, '-', '_' and '.' become '_', a dot at the
/// beginning gets a '_' in front, at most 64 bytes are kept, and an empty name becomes "_".
std::string FileNamePart(const std::string& name);

}  // namespace base
