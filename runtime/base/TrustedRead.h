// One verdict on everything that root reads or runs: only root and this process's own user can have written it.
//
// A file is trusted when it is a regular file, belongs to root or to this process's effective user, and nobody else
// can write it. Its place is trusted when each directory from the root down to it is so too: one that others may write
// must be sticky, so that they cannot exchange what is below. What is opened is what was judged: by descriptor.
#pragma once

#include <string>

#include "base/Fd.h"
#include "base/Result.h"

namespace base {

/// How far the verdict reaches.
enum class TrustScope {
    kFile,      ///< the file alone, wherever it stands
    kWithPlace  ///< the file and every directory above it
};

/// Opens a file for reading that is trusted. A link as the last element of the path is not followed.
/// Errors: kNotFound when there is none; kRefused with owner, mode and remedy when it is not trusted.
Result<Fd> OpenTrusted(const std::string& path, TrustScope scope);

/// Reads a trusted file whole. Errors: also kTooLarge when it is longer than `limit` bytes.
Result<std::string> ReadTrusted(const std::string& path, size_t limit, TrustScope scope);

/// Checks a directory and every directory above it. Links in the path are followed when they are trusted themselves.
/// Returns: the directory's descriptor (O_PATH), to open relative to; kRefused names the element at fault.
Result<Fd> OpenTrustedDirectory(const std::string& path);

/// Opens a program that may be run: trusted with its place, regular, executable. A link to it is followed when the link
/// is trusted, as a system's /bin/sh is one. Returns: a descriptor (O_PATH) for fexecve, so that what runs is what was
/// judged.
Result<Fd> OpenTrustedProgram(const std::string& path);

}  // namespace base
