// Helpers of the host library's tests, among them a logger that keeps its lines: it stands in front of the real one.
#include "HostSupport.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "platform/zel/LogMessage.h"

namespace {
std::mutex g_lock;
std::vector<std::string> g_lines;

void Keep(int level, const std::string& text) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_lines.push_back(std::to_string(level) + " " + text);
}
}  // namespace

namespace zel {
CLogMessage* CLogMessage::GetInstance() {
    static CLogMessage log;
    return &log;
}
void CLogMessage::WriteLogMessage(const std::string& text, int level) {
    Keep(level, text);
}
void CLogMessage::log(int level, const char*, int, const char* format, ...) {
    char text[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    Keep(level, text);
}
}  // namespace zel

namespace support {

TempDir::TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "zelHostTest.XXXXXX").string();
    m_path = mkdtemp(name.data()) != nullptr ? name : "";
}
TempDir::~TempDir() {
    std::error_code ignored;
    if (!m_path.empty()) std::filesystem::remove_all(m_path, ignored);
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void WriteText(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}
void ReplaceText(const std::string& path, const std::string& text) {
    WriteText(path + ".new", text);
    std::filesystem::rename(path + ".new", path);
}
std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}
std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}
std::vector<std::string> FilesIn(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> TakeLog() {
    std::lock_guard<std::mutex> lock(g_lock);
    std::vector<std::string> lines;
    lines.swap(g_lines);
    return lines;
}
bool LogHolds(const std::string& text) {
    std::lock_guard<std::mutex> lock(g_lock);
    return std::any_of(g_lines.begin(), g_lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

void Burn(std::chrono::milliseconds wall) {
    const auto end = std::chrono::steady_clock::now() + wall;
    while (std::chrono::steady_clock::now() < end) {
    }
}

}  // namespace support
