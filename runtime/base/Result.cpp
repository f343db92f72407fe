// Names and texts of errors.
#include "base/Result.h"

#include <cerrno>
#include <system_error>

namespace base {

const char* KindName(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::kNotFound: return "not found";
        case ErrorKind::kDenied: return "denied";
        case ErrorKind::kReadOnly: return "read-only";
        case ErrorKind::kBusy: return "busy";
        case ErrorKind::kInvalidValue: return "invalid value";
        case ErrorKind::kNoSpace: return "no space";
        case ErrorKind::kGone: return "group gone";
        case ErrorKind::kNotCgroup: return "not a cgroup file system";
        case ErrorKind::kNoController: return "no controller";
        case ErrorKind::kNotDelegated: return "not delegated";
        case ErrorKind::kShortWrite: return "short write";
        case ErrorKind::kTooLarge: return "too large";
        case ErrorKind::kMalformed: return "malformed";
        case ErrorKind::kUnreadable: return "unreadable";
        case ErrorKind::kNotInForce: return "not in force";
        case ErrorKind::kNotSynced: return "not synced";
        case ErrorKind::kNoServer: return "no server";
        case ErrorKind::kRefused: return "refused";
        case ErrorKind::kOther: return "other";
    }
    return "other";
}

ErrorKind KindOfErrno(int error) {
    switch (error) {
        case ENOENT:
        case ESRCH: return ErrorKind::kNotFound;
        case EPERM:
        case EACCES: return ErrorKind::kDenied;
        case EROFS: return ErrorKind::kReadOnly;
        case EBUSY: return ErrorKind::kBusy;
        case EINVAL:
        case ERANGE: return ErrorKind::kInvalidValue;
        case ENOSPC:
        case ENOMEM:
        case EMFILE:
        case ENFILE: return ErrorKind::kNoSpace;
        case ENODEV: return ErrorKind::kGone;
        case ELOOP:
        case ENOTDIR: return ErrorKind::kRefused;
        default: return ErrorKind::kOther;
    }
}

std::string ErrnoText(int error) {
    return std::system_category().message(error);
}

std::string Error::Text() const {
    if (operation.empty()) return hint;
    std::string text = "cannot " + operation + " " + path + ": ";
    if (error != 0) {
        text += ErrnoText(error);
    } else {
        text += KindName(kind);
    }
    if (!hint.empty()) text += "; " + hint;
    return text;
}

std::string Error::Reason() const {
    if (!hint.empty()) return hint;
    return error != 0 ? ErrnoText(error) : KindName(kind);
}

Error ErrnoError(int error, std::string operation, std::string path, std::string hint) {
    return Error{KindOfErrno(error), error, std::move(operation), std::move(path), std::move(hint)};
}

Error MakeError(ErrorKind kind, std::string operation, std::string path, std::string hint) {
    return Error{kind, 0, std::move(operation), std::move(path), std::move(hint)};
}

Error SentenceError(std::string text, ErrorKind kind) {
    return Error{kind, 0, {}, {}, std::move(text)};
}

}  // namespace base
