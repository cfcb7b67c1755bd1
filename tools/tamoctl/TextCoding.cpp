// UTF-8, base64, and the quoting of screens and script lines.

#include "tools/tamoctl/TextCoding.h"

#include "tools/tamoctl/Failure.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace {

constexpr std::string_view base64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

unsigned char byteAt(std::string_view text, std::size_t at) { return static_cast<unsigned char>(text[at]); }

/// The bytes of the UTF-8 character at `at`; 0 when there is none (also overlong forms, surrogates).
std::size_t characterLength(std::string_view text, std::size_t at)
{
    const unsigned char lead = byteAt(text, at);
    if (lead < 0x80)
        return 1;
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() - at < length)
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byteAt(text, at + i) & 0xC0) != 0x80)
            return 0;
    const unsigned char second = byteAt(text, at + 1);
    const bool bad = (lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
                     (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F);
    return bad ? 0 : length;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

/// The parts of splitWords: where it is in the line, and the word being put together.
class WordReader {
public:
    explicit WordReader(std::string_view line) : m_line(line) {}

    std::vector<std::string> words()
    {
        for (; m_at < m_line.size(); ++m_at) {
            const char c = m_line[m_at];
            if (isBlank(c))
                finishWord();
            else if (c == '#' && !m_inWord)
                break;
            else if (c == '\'')
                takeLiteral();
            else if (c == '"')
                takeQuoted();
            else if (c == '\\')
                takeEscaped();
            else
                take(c);
        }
        finishWord();
        return std::move(m_words);
    }

private:
    void take(char c)
    {
        m_word += c;
        m_inWord = true;
    }
    void finishWord()
    {
        if (m_inWord)
            m_words.push_back(std::move(m_word));
        m_word.clear();
        m_inWord = false;
    }
    void takeLiteral()
    {
        const std::size_t end = m_line.find('\'', m_at + 1);
        if (end == std::string_view::npos)
            throw Failure(ExitCode::usage, "a ' that is not closed");
        m_word += m_line.substr(m_at + 1, end - m_at - 1);
        m_inWord = true;
        m_at = end;
    }
    void takeQuoted()
    {
        m_inWord = true;
        for (++m_at; m_at < m_line.size() && m_line[m_at] != '"'; ++m_at) {
            const bool escape = m_line[m_at] == '\\' && m_at + 1 < m_line.size() &&
                                std::string_view("\"\\$`").find(m_line[m_at + 1]) != std::string_view::npos;
            m_word += m_line[escape ? ++m_at : m_at];
        }
        if (m_at == m_line.size())
            throw Failure(ExitCode::usage, "a \" that is not closed");
    }
    void takeEscaped()
    {
        if (++m_at == m_line.size())
            throw Failure(ExitCode::usage, "a backslash at the end of the line");
        take(m_line[m_at]);
    }

    std::string_view m_line;
    std::size_t m_at = 0;
    std::vector<std::string> m_words;
    std::string m_word;
    bool m_inWord = false;
};

} // namespace

bool isUtf8(std::string_view text)
{
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = characterLength(text, at);
        if (length == 0)
            return false;
        at += length;
    }
    return true;
}

std::string base64(std::string_view bytes)
{
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t held = std::min<std::size_t>(3, bytes.size() - at);
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < held ? byteAt(bytes, at + i) : 0u);
        for (std::size_t i = 0; i < 4; ++i)
            text += i <= held ? base64Digits[group >> (18 - 6 * i) & 63] : '=';
    }
    return text;
}

std::optional<std::string> fromBase64(std::string_view text)
{
    if (text.size() % 4 != 0)
        return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
        ++padding;
    std::string bytes;
    std::uint32_t group = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool pad = at >= text.size() - padding;
        const std::size_t digit = pad ? 0 : base64Digits.find(text[at]);
        if (digit == std::string_view::npos)
            return std::nullopt;
        group = group << 6 | static_cast<std::uint32_t>(digit);
        if (at % 4 == 3)
            for (const int shift : {16, 8, 0})
                bytes += static_cast<char>(group >> shift & 0xFF);
    }
    bytes.resize(bytes.size() - padding);
    return bytes;
}

std::string printable(std::string_view text)
{
    constexpr std::string_view hex = "0123456789abcdef";
    std::string shown;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = characterLength(text, at);
        const unsigned char byte = byteAt(text, at);
        if (length == 0 || byte < 0x20 || byte == 0x7F) {
            shown.append("\\x").append(1, hex[byte >> 4]).append(1, hex[byte & 15]);
            ++at;
        } else {
            shown += text.substr(at, length);
            at += length;
        }
    }
    return shown;
}

std::size_t screenWidth(std::string_view text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::vector<std::string> splitWords(std::string_view line) { return WordReader(line).words(); }
