// printf into a string, for columns.
#pragma once

#include <string>

namespace agent {

/// A line longer than a kilobyte is cut.
std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace agent
