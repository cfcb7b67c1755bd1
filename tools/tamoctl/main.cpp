// tamoctl, the operator's client of the configuration database.

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/Options.h"

#include <iostream>
#include <string_view>

namespace {

/// Whether errors are to be JSON, known before the command line is: it may be the error.
bool wantsJson(int argc, char** argv)
{
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i)
        if (std::string_view(argv[i]) == "--json")
            return true;
    return false;
}

ExitCode run(int argc, char** argv)
{
    try {
        const auto line = parseCommandLine(argc, argv);
        if (line) {
            Context context(line->options);
            line->verb(context);
        }
        if (!std::cout.flush())
            throw Failure(ExitCode::usage, "standard output cannot be written");
        return ExitCode::success;
    } catch (const AlreadyReported& failure) {
        return failure.code;
    } catch (const std::exception& error) {
        const Failure failure = failureOf(error);
        reportFailure(failure, wantsJson(argc, argv));
        return failure.code;
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::ios::sync_with_stdio(false);
    return static_cast<int>(run(argc, argv));
}
