// Lines of a file or of standard input, for import and scripts. Read without the standard streams:
// they would go on waiting for input after a signal.

#include "tools/tamoctl/InputFile.h"

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/Interruption.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <unistd.h>
#include <utility>

struct InputFile::Source {
    explicit Source(int fd) : descriptor(fd) {}
    ~Source() { ::close(descriptor); }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    const int descriptor;
    std::string held; ///< read and, from `at` on, not taken yet
    std::size_t at = 0;
};

InputFile::InputFile(const std::string& path, const Interruption* interruption)
    : m_name(path == "-" ? "standard input" : path), m_interruption(interruption)
{
    if (path == "-") {
        // A script on standard input may import the lines that follow: there is one buffer only.
        static const auto standardInput = std::make_shared<Source>(STDIN_FILENO);
        m_source = standardInput;
        return;
    }
    std::error_code error;
    if (std::filesystem::is_directory(path, error))
        throw Failure(ExitCode::usage, path + ": is a directory");
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        throw Failure(ExitCode::usage, path + ": " + std::strerror(errno));
    m_source = std::make_shared<Source>(descriptor);
    const auto size = std::filesystem::file_size(path, error);
    m_size = error ? 0 : size;
}

InputFile::~InputFile() = default;

bool InputFile::nextLine(std::string& line)
{
    while (takeLine(line)) {
        ++m_lineNumber;
        m_bytesRead += line.size() + 1;
        if (line.find_first_not_of(" \t\r") != std::string::npos)
            return true;
    }
    return false;
}

/// Up to the next newline, or to the end of the file.
bool InputFile::takeLine(std::string& line)
{
    std::string& held = m_source->held;
    std::size_t end = held.find('\n', m_source->at);
    while (end == std::string::npos) {
        held.erase(0, std::exchange(m_source->at, 0));
        const std::size_t searched = held.size();
        if (!readMore()) {
            line = std::exchange(held, {});
            return !line.empty();
        }
        end = held.find('\n', searched);
    }
    line.assign(held, m_source->at, end - m_source->at);
    m_source->at = end + 1;
    return true;
}

/// False at the end of the file.
bool InputFile::readMore()
{
    char bytes[64 * 1024];
    for (;;) {
        pollfd polls[] = {{m_source->descriptor, POLLIN, 0},
                          {m_interruption ? m_interruption->descriptor() : -1, POLLIN, 0}};
        const int ready = ::poll(polls, 2, -1);
        if (ready > 0 && polls[1].revents != 0)
            throw Failure(ExitCode::interrupted, "interrupted");
        const ssize_t step = ready > 0 ? ::read(m_source->descriptor, bytes, sizeof bytes) : -1;
        if (step >= 0) {
            m_source->held.append(bytes, static_cast<std::size_t>(step));
            return step > 0;
        }
        if (errno != EINTR && errno != EAGAIN)
            throw Failure(ExitCode::usage, m_name + ": reading failed: " + std::strerror(errno));
    }
}
