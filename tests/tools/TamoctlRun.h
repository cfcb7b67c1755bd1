#pragma once

#include "ServiceSocket.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>

struct Result {
    int code = -1;
    std::string output;
    std::string error;
};

inline std::string contentOf(const std::string& path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

inline bool isOneLine(const std::string& text) { return !text.empty() && text.find('\n') == text.size() - 1; }

/// Runs the tamoctl binary against the sockets of a directory of its own.
class Tamoctl : public testing::Test {
protected:
    /// `arguments` as a shell reads them; `input` for standard input.
    Result run(const std::string& arguments, const std::string& input = "") const
    {
        write("input", input);
        const std::string files = " <" + path("input") + " >" + path("output") + " 2>" + path("error");
        const int status = std::system((TAMOCTL " --dir " + directory.path() + " " + arguments + files).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(path("output")), contentOf(path("error"))};
    }
    std::string path(const std::string& name) const { return directory.path() + "/" + name; }
    void write(const std::string& name, const std::string& content) const
    {
        std::ofstream(path(name), std::ios::binary) << content;
    }
    SocketDirectory directory;
};
