// The file that a reader is given, and what XML files are made of.

#include "tests/fuzz/FileTarget.h"

#include <memory>

namespace Fuzz {

namespace {

std::unique_ptr<InputFile>& file()
{
    static std::unique_ptr<InputFile> it;
    return it;
}

} // namespace

const InputFile& inputFile()
{
    if (!file())
        file() = std::make_unique<InputFile>();
    return *file();
}

std::map<std::string, Input> seeds() { return {}; }

void finish() { file().reset(); }

std::string escaped(const std::string& text)
{
    std::string to;
    for (const char c : text) {
        if (c == '<' || c == '>' || c == '&' || c == '"' || c == '\'' || (c >= 0 && c < ' '))
            to += "&#" + std::to_string(static_cast<int>(c)) + ";";
        else
            to += c;
    }
    return to;
}

Grammar xmlGrammar(std::vector<std::string> words)
{
    words.insert(words.end(), {"&amp;",
                               "&#0;",
                               "&#10;",
                               "&#x10FFFF;",
                               "&e;",
                               "<![CDATA[",
                               "]]>",
                               "<!--",
                               "-->",
                               "<?x y?>",
                               "<n/>",
                               "</n>",
                               "\xEF\xBB\xBF",
                               "<!DOCTYPE x [<!ENTITY e \"v\">]>",
                               " ",
                               "\n",
                               "%",
                               "A=1,B=2",
                               "\"",
                               "'",
                               "\xC2\x85",
                               "\xC3\x28",
                               "xmlns='u'"});
    return {.form = Grammar::Form::xml, .separator = {}, .words = std::move(words)};
}

} // namespace Fuzz
