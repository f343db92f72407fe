// One verdict on everything that root reads or runs: only root and this process's own user can have written it.
//
// A file is trusted when it is a regular file, belongs to root or to this process's effective user, and nobody else
// can write it. Its place is trusted when the directory that holds it is so too, and each directory from the root down
// to that one: further up, a directory that others may write must be sticky, so that they cannot exchange what is
// below. What is opened is what was judged: by descriptor.
#pragma once

#include <string>

#include "base/Fd.h"
#include "base/Result.h"

namespace base {

/// How far the verdict reaches.
enum class TrustScope {
    kFile,      ///< the file alone, wherever it stands
    kWithPlace  ///< the file, the directory that holds it and those above
};

/// Opens a file for reading that is trusted. A link as the last element of the path is not followed.
/// Errors: kNotFound when there is none; kRefused with owner, mode and remedy when it is not trusted.
Result<Fd> OpenTrusted(const std::string& path, TrustScope scope);

/// Reads a trusted file whole. Errors: also kTooLarge when it is longer than `limit` bytes.
Result<std::string> ReadTrusted(const std::string& path, size_t limit, TrustScope scope);

/// Checks a directory that is to hold what is trusted, and every directory above it. Links in the path are followed
/// when they are trusted themselves. Returns: the directory's descriptor (O_PATH), to open relative to; kRefused names
/// the element at fault.
Result<Fd> OpenTrustedDirectory(const std::string& path);

/// Opens a directory that may belong to anybody, as an operator names one for another program's files: only links of
/// other users on the way there are refused, so that nobody who may write above it can turn us to another place.
/// Returns: a descriptor (O_PATH) to open relative to.
Result<Fd> OpenNamedDirectory(const std::string& path);

/// A program that was judged.
/// Lifetime: the descriptor is close-on-exec until the program is run.
struct TrustedProgram {
    Fd directory;           ///< that holds it; nobody else can exchange what stands in it
    std::string path;       ///< by that descriptor, without links: to run it, in this process or in one forked from it
    bool isScript = false;  ///< run by an interpreter, which was judged as well
};

/// Opens a program that may be run: trusted with its place, regular, executable, and so is its interpreter. A link to
/// it is followed when the link is trusted, as a system's /bin/sh is one. What a program loads or runs itself
/// (libraries, `env`'s search) is not looked at.
Result<TrustedProgram> OpenTrustedProgram(const std::string& path);

/// Becomes the program, found by its directory's descriptor: its process is named as the file is. A script inherits the
/// descriptor, since its interpreter opens it by that. Only system calls are made, so a forked child may call it.
/// Returns: the errno, only when it fails.
int RunTrustedProgram(const TrustedProgram& program, char* const* arguments, char* const* environment);

/// Returns: why `path` was refused, with the element at fault before it where that is another than `path`.
std::string ReasonOf(const Error& error, const std::string& path);

}  // namespace base
