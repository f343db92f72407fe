// A value or the error that came instead of it: the one language of failures below the seam.
// An error has a closed kind, the errno, the operation and the path, so that one log line can name all four.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace base {

/// What went wrong, as far as a caller decides by it.
enum class ErrorKind {
    kNotFound,      ///< no such group, file or process (ENOENT, ESRCH)
    kDenied,        ///< EPERM, EACCES
    kReadOnly,      ///< EROFS
    kBusy,          ///< EBUSY: processes or limits in the way
    kInvalidValue,  ///< the kernel or a check of ours does not take the value (EINVAL, ERANGE)
    kNoSpace,       ///< ENOSPC, ENOMEM, EMFILE, ENFILE
    kGone,          ///< the group was removed while we held it (ENODEV)
    kNotCgroup,     ///< the directory is not on a cgroup file system
    kNoController,  ///< the controller is not there to be used
    kNotDelegated,  ///< another manager owns the place
    kShortWrite,    ///< the kernel took a part of the value only
    kTooLarge,      ///< longer than the bound for it
    kMalformed,     ///< text that does not parse
    kUnreadable,    ///< stored, and the disk does not give it back
    kNotInForce,    ///< written without an error, and yet the kernel says something else
    kNotSynced,     ///< done and seen by everybody, but a crash may take it back
    kNoServer,      ///< nobody serves the socket, or not now
    kRefused,       ///< a name, path or process that we must not touch
    kOther,
};

const char* KindName(ErrorKind kind);
ErrorKind KindOfErrno(int error);

/// One failure.
struct Error {
    ErrorKind kind = ErrorKind::kOther;
    int error = 0;          ///< errno, 0 when there is none
    std::string operation;  ///< "write 500", "mkdir", "statfs"
    std::string path;
    std::string hint;  ///< what an operator can do, or a detail; may be empty

    /// Returns: "cannot <operation> <path>: <errno text>; <hint>"; an error without an operation is its hint alone.
    std::string Text() const;
    /// Returns: why, for a line that names the path itself: the hint, else the errno's text, else the kind.
    std::string Reason() const;
};

/// strerror without its static buffer.
std::string ErrnoText(int error);

/// An error of the given errno.
Error ErrnoError(int error, std::string operation, std::string path, std::string hint = {});
Error MakeError(ErrorKind kind, std::string operation, std::string path, std::string hint = {});
/// An error whose words are said already, for an operator: `text` is all that Text gives.
Error SentenceError(std::string text, ErrorKind kind = ErrorKind::kOther);

/// A T or an Error.
template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value) : m_value(std::move(value)) {}
    Result(Error error) : m_error(std::move(error)) {}
    bool Ok() const { return m_value.has_value(); }
    explicit operator bool() const { return Ok(); }
    T& Value() { return *m_value; }
    const T& Value() const { return *m_value; }
    T& operator*() { return *m_value; }
    const T& operator*() const { return *m_value; }
    T* operator->() { return &*m_value; }
    const T* operator->() const { return &*m_value; }
    /// Requires: !Ok().
    const Error& GetError() const { return m_error; }

private:
    std::optional<T> m_value;
    Error m_error;
};

/// Success or an Error.
class [[nodiscard]] Status {
public:
    Status() = default;
    Status(Error error) : m_error(std::move(error)) {}
    bool Ok() const { return !m_error.has_value(); }
    explicit operator bool() const { return Ok(); }
    /// Requires: !Ok().
    const Error& GetError() const { return *m_error; }

private:
    std::optional<Error> m_error;
};

}  // namespace base
