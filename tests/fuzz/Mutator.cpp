// Mutations of inputs. Each changes something somewhere and keeps the rest, so that many of the results still
// get past a reader's first checks.

#include "tests/fuzz/Mutator.h"

#include <algorithm>
#include <cctype>

using Fuzz::Input;

namespace {

constexpr std::int64_t integers[] = {0,     1,     -1,     127,        128,        -128,       255,        256,
                                     32767, 32768, -32768, 65535,      65536,      2147483647, 2147483648, -2147483648,
                                     16,    31,    32,     4294967295, 4294967296, INT64_MAX,  INT64_MIN};

struct Span {
    std::size_t begin;
    std::size_t end;
};

/// From each '<' to the '>' behind it.
std::vector<Span> tagsOf(const Input& input)
{
    std::vector<Span> tags;
    for (std::size_t at = input.find('<'); at != Input::npos; at = input.find('<', at + 1))
        if (const std::size_t end = input.find('>', at); end != Input::npos)
            tags.push_back({at, end + 1});
    return tags;
}

std::vector<Input> split(const Input& input, const std::string& separator)
{
    std::vector<Input> parts;
    std::size_t begin = 0;
    for (std::size_t at; (at = input.find(separator, begin)) != Input::npos; begin = at + separator.size())
        parts.push_back(input.substr(begin, at - begin));
    parts.push_back(input.substr(begin));
    return parts;
}

Input join(const std::vector<Input>& parts, const std::string& separator)
{
    Input joined;
    for (std::size_t i = 0; i < parts.size(); ++i)
        joined += (i ? separator : "") + parts[i];
    return joined;
}

bool isText(unsigned char head) { return (head & 0xE0) == 0xA0; }

} // namespace

Input Mutator::make(std::uint64_t number)
{
    m_random.seed(m_seed * 0x9E3779B97F4A7C15u + number);
    Input input = !m_good.empty() && below(2) ? m_good[below(m_good.size())] : another();
    const std::size_t most = m_grammar.separator.empty() ? 1 + below(4) : 8; // several records take several changes
    for (std::size_t changes = 1 + below(most); changes > 0; --changes)
        (this->*anyChange())(input);
    if (input.size() > maxInput)
        input.resize(maxInput);
    return input;
}

/// One of the input's own form rather than one of bytes.
Mutator::Change Mutator::anyChange()
{
    static constexpr Change ofBytes[] = {&Mutator::flipBit,     &Mutator::changeByte,  &Mutator::putInteger,
                                         &Mutator::insertBytes, &Mutator::removeBytes, &Mutator::repeatBytes,
                                         &Mutator::truncate,    &Mutator::splice};
    static constexpr Change ofXml[] = {&Mutator::changeElements,
                                       &Mutator::changeElements,
                                       &Mutator::replaceContent,
                                       &Mutator::replaceContent,
                                       &Mutator::replaceToken,
                                       &Mutator::insertWord,
                                       &Mutator::nest};
    using Form = Fuzz::Grammar::Form;
    if (!m_grammar.separator.empty() && below(4) == 0)
        return &Mutator::changeRecords;
    if (m_grammar.form == Form::bytes || below(4) == 0)
        return ofBytes[below(std::size(ofBytes))];
    if (m_grammar.form == Form::xml)
        return ofXml[below(std::size(ofXml))];
    if (m_grammar.form == Form::text)
        return &Mutator::replaceToken;
    return below(2) ? &Mutator::replaceText : &Mutator::changeByte;
}

std::string Mutator::word()
{
    return m_grammar.words.empty() ? std::string("A=1") : m_grammar.words[below(m_grammar.words.size())];
}

void Mutator::flipBit(Input& input)
{
    if (!input.empty()) {
        char& byte = input[below(input.size())];
        byte = static_cast<char>(byte ^ (1 << below(8)));
    }
}

void Mutator::changeByte(Input& input)
{
    if (!input.empty())
        input[below(input.size())] = static_cast<char>(below(256));
}

void Mutator::putInteger(Input& input)
{
    const std::size_t width = std::size_t{1} << below(4);
    if (input.size() < width)
        return;
    const auto integer = static_cast<std::uint64_t>(integers[below(std::size(integers))]);
    const std::size_t at = below(input.size() - width + 1);
    const bool littleEndian = below(2) == 0;
    for (std::size_t i = 0; i < width; ++i)
        input[at + i] = static_cast<char>(integer >> (8 * (littleEndian ? i : width - 1 - i)));
}

void Mutator::insertBytes(Input& input)
{
    std::string bytes = below(2) ? word() : std::string(1 + below(16), static_cast<char>(below(256)));
    input.insert(below(input.size() + 1), bytes);
}

void Mutator::removeBytes(Input& input)
{
    if (!input.empty())
        input.erase(below(input.size()), 1 + below(below(4) ? 4 : input.size()));
}

void Mutator::repeatBytes(Input& input)
{
    if (input.empty())
        return;
    const std::size_t at = below(input.size());
    const Input part = input.substr(at, 1 + below(64));
    for (std::size_t times = 1 + below(below(8) ? 3 : 200); times > 0 && input.size() < maxInput; --times)
        input.insert(at, part);
}

void Mutator::truncate(Input& input) { input.resize(below(input.size() + 1)); }

void Mutator::splice(Input& input)
{
    const Input& other = another();
    input = input.substr(0, below(input.size() + 1)) + other.substr(below(other.size() + 1));
}

/// Takes, doubles, swaps and drops whole records: sequences that nobody wrote down.
void Mutator::changeRecords(Input& input)
{
    std::vector<Input> records = split(input, m_grammar.separator);
    const std::size_t at = below(records.size());
    const auto here = records.begin() + static_cast<std::ptrdiff_t>(at);
    switch (below(5)) {
    case 0:
        records.erase(here);
        break;
    case 1:
        records.insert(here, Input(records[at]));
        break;
    case 2:
        std::swap(records[at], records[below(records.size())]);
        break;
    default: {
        const std::vector<Input> others = split(another(), m_grammar.separator);
        records.insert(here, others[below(others.size())]);
    }
    }
    input = join(records, m_grammar.separator);
}

/// Puts another text in the place of a short MessagePack one, and its length into the head of the text and of
/// the bytes around it.
void Mutator::replaceText(Input& input)
{
    if (input.empty())
        return;
    const std::size_t start = below(input.size());
    std::size_t at = start;
    while (at < input.size() && !isText(static_cast<unsigned char>(input[at])))
        ++at;
    if (at == input.size())
        return;
    const std::size_t old = static_cast<unsigned char>(input[at]) & 0x1F;
    const std::string text = word().substr(0, 31);
    if (at + 1 + old > input.size())
        return;
    input.replace(at, 1 + old, static_cast<char>(0xA0 | text.size()) + text);
    for (std::size_t head = at; head-- > 0 && at - head < 256;) // bin 8
        if (static_cast<unsigned char>(input[head]) == 0xC4) {
            const std::size_t length = static_cast<unsigned char>(input[head + 1]);
            if (head + 2 + length > at)
                input[head + 1] = static_cast<char>(length + text.size() - old);
            return;
        }
}

/// Replaces a number or a word.
void Mutator::replaceToken(Input& input)
{
    const auto inToken = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.'; };
    const auto begin =
        std::find_if(input.begin() + static_cast<std::ptrdiff_t>(below(input.size() + 1)), input.end(), inToken);
    const auto end = std::find_if_not(begin, input.end(), inToken);
    if (begin != end)
        input.replace(begin, end, word());
}

/// Drops, doubles or moves a whole element, from a tag to the next one that closes its name.
void Mutator::changeElements(Input& input)
{
    const std::vector<Span> tags = tagsOf(input);
    if (tags.empty())
        return;
    const Span tag = tags[below(tags.size())];
    const std::size_t nameEnd = input.find_first_of(" />", tag.begin + 1);
    Span element = tag;
    if (input[tag.end - 2] != '/') {
        const Input closing = "</" + input.substr(tag.begin + 1, nameEnd - tag.begin - 1) + ">";
        const std::size_t at = input.find(closing, tag.end);
        if (at == Input::npos)
            return;
        element.end = at + closing.size();
    }
    const Input text = input.substr(element.begin, element.end - element.begin);
    const Span other = tags[below(tags.size())];
    const std::size_t choice = below(3);
    if (choice != 0 && input.size() < maxInput)
        input.insert(other.begin, text);
    if (choice != 1 && (choice == 0 || other.begin >= element.end))
        input.erase(element.begin, text.size());
}

void Mutator::nest(Input& input)
{
    const std::vector<Span> tags = tagsOf(input);
    if (tags.empty())
        return;
    const Span tag = tags[below(tags.size())];
    const std::size_t depth = 1 + below(below(4) ? 4 : 400);
    Input open;
    Input close;
    for (std::size_t i = 0; i < depth; ++i) {
        open += "<n>";
        close += "</n>";
    }
    if (below(4) == 0)
        open = "<n>" + word() + open + "</n>";
    input.insert(tag.end, open + close);
}

void Mutator::insertWord(Input& input)
{
    const std::vector<Span> tags = tagsOf(input);
    const std::size_t at = tags.empty() ? 0 : below(4) ? tags[below(tags.size())].end : 0;
    input.insert(at, word());
}

/// Replaces an attribute's value or an element's text.
void Mutator::replaceContent(Input& input)
{
    const std::size_t start = below(input.size() + 1);
    const std::size_t begin = input.find_first_of("\"'>", start);
    if (begin == Input::npos)
        return;
    const std::size_t end = input.find(input[begin] == '>' ? '<' : input[begin], begin + 1);
    if (end != Input::npos)
        input.replace(begin + 1, end - begin - 1, word());
}
