// Whole small files. How they are opened, read and replaced is the ground floor's; here stand the seam's shapes.
#include "platform/zel/FileUtil.h"

#include <sys/stat.h>
#include <unistd.h>

#include "base/Database.h"
#include "base/FileIo.h"
#include "base/FileReplace.h"
#include "base/TrustedRead.h"

namespace zel {
namespace {

constexpr mode_t kFileMode = 0640;
// Bound of a file read as lines: the line limit alone does not bound one endless line.
constexpr size_t kMaxLinesFileBytes = 64UL * 1024 * 1024;

// Takes the lines out of `text` whose end has been seen; the rest stays for the next chunk. What stands before
// `searched` is known to hold no line end, so that a long line is not searched again with every chunk.
void TakeLines(std::string& text, size_t searched, std::list<std::string>& lines, unsigned long limit) {
    size_t at = 0;
    for (size_t end = 0; lines.size() < limit && (end = text.find('\n', searched)) != std::string::npos;) {
        const size_t length = end - at;
        const bool carriageReturn = length != 0 && text[end - 1] == '\r';
        lines.emplace_back(text, at, carriageReturn ? length - 1 : length);
        at = end + 1;
        searched = at;
    }
    text.erase(0, at);
}

}  // namespace

bool CFileUtil::IsFile(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool CFileUtil::ReadFileLineToList(const std::string& path, std::list<std::string>& lines, unsigned long limit) {
    const base::Result<base::Fd> fd = base::OpenForReading(path);
    if (!fd) return false;
    std::list<std::string> found;
    std::string rest;
    size_t total = 0;
    while (found.size() < limit) {
        const size_t searched = rest.size();
        const base::Result<size_t> got = base::ReadMore(*fd, rest, path);
        if (!got) return false;
        if (*got == 0) break;
        total += *got;
        if (total > kMaxLinesFileBytes) return false;
        TakeLines(rest, searched, found, limit);
    }
    // The last line may lack its end.
    if (!rest.empty() && found.size() < limit) found.push_back(std::move(rest));
    lines = std::move(found);
    return true;
}

bool CFileUtil::ReadFullFile(const std::string& path, std::string& text, unsigned long limit) {
    base::Result<std::string> content = base::ReadTrusted(path, limit, base::TrustScope::kWithPlace);
    if (content) text = std::move(*content);
    return content.Ok();
}

bool CFileUtil::WriteNewFile(const std::string& path, const std::string& text, bool flag) {
    return base::ReplaceFile(path, text, kFileMode, flag ? base::Durability::kSynced : base::Durability::kRenewed).Ok();
}

bool CFileUtil::RemoveFile(const std::string& path) {
    return ::unlink(path.c_str()) == 0;
}

CFileCom::CFileCom(const std::string& path) : m_path(path) {}

CFileCom::~CFileCom() = default;

bool CFileCom::rename(const std::string& newPath) {
    // The module renames its store of a day, whose journal must neither stay behind nor meet another file.
    return base::RenameDatabase(m_path, newPath).Ok();
}

}  // namespace zel
