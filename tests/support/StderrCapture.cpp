#include "support/StderrCapture.h"

#include <fcntl.h>
#include <unistd.h>

namespace support {

StderrCapture::StderrCapture() : m_saved(::dup(STDERR_FILENO)) {
    const int fd = ::open((m_directory / "stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
}

StderrCapture::~StderrCapture() {
    Text();
}

std::string StderrCapture::Text() {
    if (m_saved >= 0) {
        ::dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
        m_saved = -1;
    }
    return ReadText(m_directory / "stderr");
}

}  // namespace support
