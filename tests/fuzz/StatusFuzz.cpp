// Status messages of the middleware: an input is a sequence of payloads; an empty one stands for the end of the
// hold. What they come to is compared with a model of it.

#include "tests/fuzz/FuzzedService.h"

#include <cstring>

using namespace TAMO::Messages;
using namespace Fuzz;

namespace {

const std::string separator = "\xC1\xC1\xC1";
const std::string module = "ManagedElement=1,Equipment=1,RbsUnit=1,WifiModule=1";

Input payload(std::vector<std::uint32_t> behindTheHead)
{
    std::vector<std::uint32_t> words(5);
    words.insert(words.end(), behindTheHead.begin(), behindTheHead.end());
    Input bytes(words.size() * sizeof words[0], '\0');
    std::memcpy(bytes.data(), words.data(), bytes.size()); // little-endian, as both sides are
    return bytes;
}

Input wifi(std::uint32_t status) { return payload({0xEB1CBABE, 2, 1, status}); }

/// The first status of a burst is written at once, the last one when the hold ends.
class Model {
public:
    void take(const Input& bytes)
    {
        if (bytes.size() < 36 || bytes.compare(20, 12, wifi(0), 20, 12) != 0)
            return reached(bytes.size() < 36 ? "too short" : "not a Wi-Fi status");
        reached("Wi-Fi status");
        std::memcpy(&m_latest, bytes.data() + 32, sizeof m_latest);
        if (!m_holding)
            apply();
    }
    void expire()
    {
        reached("hold expired");
        if (m_holding)
            apply();
    }
    std::string written = "(none)";

private:
    void apply()
    {
        m_holding = m_latest != m_applied;
        if (m_holding)
            written = std::to_string(m_applied = m_latest);
    }
    std::int32_t m_latest = 0;
    std::int32_t m_applied = 0;
    bool m_holding = false;
};

} // namespace

std::map<std::string, Input> Fuzz::seeds()
{
    const Input& s = separator;
    return {{"status", wifi(1)},
            {"burst", wifi(1) + s + wifi(2) + s + wifi(3) + s + s + wifi(4) + s + s},
            {"back_again", wifi(1) + s + wifi(2) + s + wifi(1) + s + s + wifi(0) + s + s},
            {"zero_first", wifi(0) + s + wifi(0xFFFFFFFF)},
            {"magic", payload({0xEB1CBABF, 2, 1, 5})},
            {"kinds", payload({0xEB1CBABE, 0}) + s + payload({0xEB1CBABE, 1}) + s + payload({0xEB1CBABE, 3}) + s +
                          payload({0xEB1CBABE, 4, 1, 9})},
            {"other_status", payload({0xEB1CBABE, 2, 2, 1})},
            {"short", wifi(1).substr(0, 35) + s + wifi(1).substr(0, 27) + s + wifi(1).substr(0, 1)},
            {"long", wifi(7) + Input(5000, 'x')}};
}

Grammar Fuzz::grammar()
{
    return {.form = Grammar::Form::bytes, .separator = separator, .words = {wifi(3), wifi(2).substr(20)}};
}

std::vector<Minimum> Fuzz::minimums()
{
    return {{"Wi-Fi status", 5, 1000},
            {"not a Wi-Fi status", 2, 300},
            {"too short", 3, 300},
            {"hold expired", 3, 300},
            {"written", 3, 500}};
}

void Fuzz::finish() {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Input input(reinterpret_cast<const char*>(data), size);
    return runOnService([&](FuzzedService& service) {
        Model model;
        std::size_t begin = 0;
        for (int count = 0; count < 40 && begin <= input.size(); ++count) {
            const std::size_t end = std::min(input.find(separator, begin), input.size());
            const Input bytes = input.substr(begin, end - begin);
            begin = end + separator.size();
            if (bytes.empty()) {
                model.expire();
                service.expireHold();
                continue;
            }
            model.take(bytes);
            service.give(TAMO_MiddlewareStatus::id,
                         TAMO_MiddlewareStatus(Bytes(bytes.begin(), bytes.end())).serialize(), 5);
        }
        require(FuzzedService::value(module, "operationalState") == model.written, "the state that a model gives");
        if (model.written != "(none)")
            reached("written");
    });
}
