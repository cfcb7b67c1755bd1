// Subscription keys from fields to text, as the service builds them, and back.

#include "tools/client/SubscriptionKey.h"

#include <charconv>

namespace {

constexpr std::string_view transactionsKey = "TRANSACTIONS";
constexpr std::string_view forAllBegin = ",,,,";

std::string numberText(std::int32_t number) { return number > 0 ? std::to_string(number) : std::string(); }

/// Takes what stands behind the last comma; none when there is no comma.
std::optional<std::string_view> takeLast(std::string_view& text)
{
    const std::size_t comma = text.rfind(',');
    if (comma == std::string_view::npos)
        return std::nullopt;
    const std::string_view last = text.substr(comma + 1);
    text = text.substr(0, comma);
    return last;
}

/// 0 for an empty text, none for one that no number gives.
std::optional<std::int32_t> number(std::string_view text)
{
    std::int32_t value = 0;
    if (text.empty())
        return value;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || numberText(value) != text)
        return std::nullopt; // a sign, a leading zero
    return value;
}

/// From kind and flag: "2" or "2,1".
std::optional<SubscriptionKey> forAllKey(std::string_view rest)
{
    const std::size_t comma = rest.find(',');
    const auto kind = number(rest.substr(0, comma));
    const auto flag = number(comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1));
    if (!kind || !flag)
        return std::nullopt;
    SubscriptionKey key;
    key.forAll = *kind;
    key.withAlternate = *flag;
    return key;
}

/// From the right: a DN may hold commas.
std::optional<SubscriptionKey> objectKey(std::string_view text)
{
    SubscriptionKey key;
    const auto flag = number(takeLast(text).value_or("x"));
    if (!flag)
        return std::nullopt;
    key.withAlternate = *flag;
    if (*flag > 0 && !takeLast(text).value_or("x").empty())
        return std::nullopt;
    const auto operation = number(takeLast(text).value_or("x"));
    const auto attribute = takeLast(text);
    const auto instance = number(takeLast(text).value_or("x"));
    if (!operation || !attribute || !instance)
        return std::nullopt;
    key.operation = *operation;
    key.attribute = *attribute;
    key.instance = *instance;
    key.dn = text;
    return key;
}

} // namespace

std::string SubscriptionKey::text() const
{
    if (transactions)
        return std::string(transactionsKey);
    std::string key = forAll > 0
                          ? std::string(forAllBegin) + numberText(forAll)
                          : dn + "," + numberText(instance) + "," + attribute + "," + numberText(operation) + ",";
    if (withAlternate > 0)
        key += "," + numberText(withAlternate);
    return key;
}

std::optional<SubscriptionKey> SubscriptionKey::fromText(std::string_view text)
{
    if (text == transactionsKey) {
        SubscriptionKey key;
        key.transactions = true;
        return key;
    }
    const bool forAll =
        text.starts_with(forAllBegin) && text.size() > forAllBegin.size() && text[forAllBegin.size()] != ',';
    auto key = forAll ? forAllKey(text.substr(forAllBegin.size())) : objectKey(text);
    if (!key || key->text() != text)
        return std::nullopt;
    return key;
}

std::string SubscriptionKey::whyItNeverMatches() const
{
    if (transactions)
        return {};
    if (withAlternate > 1)
        return "the flag for parked values is 1 or nothing";
    if (forAll > 0)
        return forAll <= 3 ? "" : "kinds for all objects are 1, 2 and 3";
    if (dn.empty())
        return "it names no object and no class";
    if (!attribute.empty() && instance <= 0)
        return "an attribute needs an instance";
    if (operation > 0 && attribute.empty())
        return "an operation needs an attribute";
    if (operation > 0 && operation != changeInsert && operation != changeUpdate && operation != changeDelete)
        return "operations are 18, 23 and 9";
    return {};
}
