// Reading of whole files from their ends, and of what is added to them.
#include "EventLog.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

#include "AgentPaths.h"
#include "base/FileIo.h"
#include "base/FilePath.h"

namespace agent {

namespace {

constexpr char kFileEnd[] = ".events.jsonl";
constexpr int kMostOldFiles = 4;
constexpr size_t kMostFileBytes = 64UL << 20;
constexpr size_t kMostStepBytes = 16UL << 20;  // of one file between two looks
constexpr size_t kMostProcesses = 256;

std::string Unread(const std::string& path, const base::Error& error) {
    const char* remedy = "";
    if (error.kind == base::ErrorKind::kDenied)
        remedy = "; only root, the agent's user and its group may: try again as one of them";
    if (error.kind == base::ErrorKind::kNotFound)
        remedy = "; it is there once an agent has run: start it, or name another place with --app-dir or --name";
    return path + " cannot be read: " + error.Reason() + remedy;
}

/// The event files of a directory's processes. Errors: the directory cannot be read.
base::Result<std::vector<std::string>> EventFilesIn(const std::string& appDir, const std::string& process) {
    if (!process.empty()) return std::vector<std::string>{EventFile(appDir, process)};
    const std::string directory = base::DirectoryOf(EventFile(appDir, "any"));
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(directory.c_str()), closedir);
    if (entries == nullptr) return base::ErrnoError(errno, "read", directory);
    std::vector<std::string> files;
    const std::string end = kFileEnd;
    while (const dirent* const entry = readdir(entries.get())) {
        const std::string name = entry->d_name;
        const bool isOne = name.size() > end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0;
        if (isOne && files.size() < kMostProcesses) files.push_back(directory + "/" + name);
    }
    std::sort(files.begin(), files.end());
    return files;
}

/// The time of a line without parsing all of it; 0 when it is not where it is written.
long long TimeOf(const std::string& line) {
    constexpr char kMember[] = "\"time\":";
    const size_t at = line.find(kMember);
    return at == std::string::npos ? 0 : strtoll(line.c_str() + at + sizeof kMember - 1, nullptr, 10);
}

/// Collects one process's events, the newest first, until there are `query.most` and one more.
class Collector {
public:
    /// `known`: a process of this name has run there, so no file means no events.
    Collector(const EventQuery& query, bool known, std::vector<std::string>& unread)
        : m_query(query), m_known(known), m_unread(unread) {}

    void ReadProcess(const std::string& path) {
        for (int old = 0; old <= kMostOldFiles && !m_done; ++old) {
            const std::string file = old == 0 ? path : path + "." + std::to_string(old);
            const base::Result<std::string> text = base::ReadWholeFile(file, kMostFileBytes);
            if (text) {
                m_anyRead = true;
                TakeLines(*text);
            } else if (text.GetError().kind != base::ErrorKind::kNotFound) {
                m_unread.push_back(Unread(file, text.GetError()));
            } else if (old == 0 && !m_query.process.empty() && !m_known) {
                m_unread.push_back(file + " is not there: no process " + m_query.process +
                                   " has run on this directory");
            }
        }
    }
    std::vector<TailEvent>& Found() { return m_found; }
    bool AnyRead() const { return m_anyRead; }

private:
    void TakeLines(const std::string& text) {
        size_t end = text.rfind('\n');
        bool recent = false;
        while (end != std::string::npos && !m_done) {
            const size_t before = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
            const size_t begin = before == std::string::npos ? 0 : before + 1;
            const std::string line = text.substr(begin, end - begin);
            end = before;
            TailEvent event;
            // The clock may have been set back between two lines, so one that is too old ends nothing.
            if (TimeOf(line) < m_query.since) continue;
            recent = true;
            if (!ParseEventLine(line, event) || event.time < m_query.since) continue;
            if (m_query.wanted && !m_query.wanted(event)) continue;
            m_found.push_back(std::move(event));
            m_done = m_found.size() > m_query.most;
        }
        if (!recent && m_query.since > 0 && !text.empty()) m_done = true;
    }

    const EventQuery& m_query;
    const bool m_known;
    std::vector<std::string>& m_unread;
    std::vector<TailEvent> m_found;
    bool m_done = false;
    bool m_anyRead = false;
};

void SortByTime(std::vector<TailEvent>& events) {
    std::stable_sort(events.begin(), events.end(),
                     [](const TailEvent& one, const TailEvent& other) { return one.time < other.time; });
}

}  // namespace

EventPage ReadEvents(const std::string& appDir, const EventQuery& query) {
    EventPage page;
    const base::Result<std::vector<std::string>> files = EventFilesIn(appDir, query.process);
    if (!files) {
        page.unread.push_back(Unread(files.GetError().path, files.GetError()));
        return page;
    }
    const bool known = !query.process.empty() && base::ReadFileMark(LockFile(appDir, query.process)).exists;
    for (const std::string& file : *files) {
        Collector collector(query, known, page.unread);
        collector.ReadProcess(file);
        page.anyRead = page.anyRead || collector.AnyRead();
        std::vector<TailEvent>& found = collector.Found();
        page.events.insert(page.events.end(), found.rbegin(), found.rend());
    }
    SortByTime(page.events);
    page.cut = page.events.size() > query.most;
    if (page.cut) page.events.erase(page.events.begin(), page.events.end() - static_cast<long>(query.most));
    return page;
}

EventFollower::EventFollower(std::string appDir, std::string process)
    : m_appDir(std::move(appDir)), m_process(std::move(process)) {
    const base::Result<std::vector<std::string>> files = EventFilesIn(m_appDir, m_process);
    if (!files) return;
    for (const std::string& file : *files) {
        const base::FileMark mark = base::ReadFileMark(file);
        if (mark.exists) m_places[file] = {mark.inode, mark.size, false};
    }
}

std::vector<TailEvent> EventFollower::Next() {
    std::vector<TailEvent> events;
    const base::Result<std::vector<std::string>> files = EventFilesIn(m_appDir, m_process);
    if (!files) return events;
    for (const std::string& file : *files) {
        const base::FileMark mark = base::ReadFileMark(file);
        if (!mark.exists) continue;
        Place& place = m_places[file];
        if (place.inode != 0 && place.inode != mark.inode) Read(file + ".1", place, events);
        if (place.inode != mark.inode) place = {mark.inode, 0, false};
        Read(file, place, events);
    }
    SortByTime(events);
    return events;
}

void EventFollower::Read(const std::string& path, Place& place, std::vector<TailEvent>& events) const {
    const base::Result<base::Fd> file = base::OpenForReading(path);
    struct stat info {};
    if (!file || fstat(file->Get(), &info) != 0 || info.st_ino != place.inode) return;
    if (info.st_size <= place.at) {  // a line that was cut is taken away again
        if (info.st_size < place.at) place.inLine = false;
        place.at = info.st_size;
        return;
    }
    std::string text(std::min(static_cast<size_t>(info.st_size - place.at), kMostStepBytes), '\0');
    const ssize_t length = pread(file->Get(), text.data(), text.size(), place.at);
    const size_t end = length <= 0 ? std::string::npos : text.rfind('\n', static_cast<size_t>(length) - 1);
    if (end == std::string::npos) {
        if (length != static_cast<ssize_t>(kMostStepBytes)) return;
        place.at += length;  // no line of ours is as long: it is not waited for
        place.inLine = true;
        return;
    }
    place.at += static_cast<off_t>(end) + 1;
    for (size_t begin = 0; begin <= end;) {
        const size_t lineEnd = text.find('\n', begin);
        TailEvent event;
        const bool whole = !std::exchange(place.inLine, false);
        if (whole && ParseEventLine(text.substr(begin, lineEnd - begin), event)) events.push_back(std::move(event));
        begin = lineEnd + 1;
    }
}

}  // namespace agent
