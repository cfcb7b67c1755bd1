// Lines of a file or of standard input, for import and batch.

#include "tools/tamoctl/InputFile.h"

#include "tools/tamoctl/Failure.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

InputFile::InputFile(const std::string& path)
    : m_name(path == "-" ? "standard input" : path), m_input(path == "-" ? std::cin : m_file)
{
    if (path == "-")
        return;
    std::error_code error;
    if (std::filesystem::is_directory(path, error))
        throw Failure(ExitCode::usage, path + ": is a directory");
    m_file.open(path, std::ios::binary);
    if (!m_file)
        throw Failure(ExitCode::usage, path + ": " + std::strerror(errno));
    const auto size = std::filesystem::file_size(path, error);
    m_size = error ? 0 : size;
}

bool InputFile::nextLine(std::string& line)
{
    while (std::getline(m_input, line)) {
        ++m_lineNumber;
        m_bytesRead += line.size() + 1;
        if (line.find_first_not_of(" \t\r") != std::string::npos)
            return true;
    }
    if (m_input.bad())
        throw Failure(ExitCode::usage, m_name + ": reading failed");
    return false;
}
