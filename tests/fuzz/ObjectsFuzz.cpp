// Objects and attributes in their byte form, compressed or not. An input is a byte that says which, the size
// before compression in four bytes, and the bytes.

#include "tests/fuzz/Target.h"

#include "platform/utility/DBObject.h"
#include "values/ValueType.h"

#include <cstring>
#include <memory>

using namespace Fuzz;

namespace {

constexpr std::size_t headSize = 5;
constexpr std::int32_t capacity = 32 * 1024 * 1024;

template <class Write>
Input input(char kind, Write write)
{
    Bytes bytes;
    std::int32_t size = 0;
    require(write(bytes, size) > 0, "a seed can be written");
    Input made(headSize, kind);
    std::memcpy(made.data() + 1, &size, sizeof size);
    return made.append(bytes.begin(), bytes.end());
}

Input ofObject(const DBObject& object)
{
    return input(
        'o', [&](Bytes& to, std::int32_t& size) { return DBObject::SerializeDataforDB(object, to, capacity, size); });
}

Input ofAttribute(const Attribute& attribute)
{
    return input('a', [&](Bytes& to, std::int32_t& size) {
        return DBObject::SerializeAttrforDB(attribute, to, capacity, size);
    });
}

/// Whoever reads what this process wrote gets the same again, byte for byte.
template <class Held, class Write, class Read>
void checkAgain(const Held& held, Write write, Read read)
{
    Bytes bytes;
    std::int32_t size = 0;
    const std::int32_t length = write(held, bytes, capacity, size);
    require(length > 0 && bytes.size() == static_cast<std::size_t>(length), "what was read can be written");
    const auto again = read(bytes.data(), length, size);
    require(again != nullptr, "what was written can be read");
    Bytes second;
    std::int32_t secondSize = 0;
    write(*again, second, capacity, secondSize);
    require(second == bytes && secondSize == size, "what was read is written the same way");
    Bytes tooSmall;
    require(write(held, tooSmall, length - 1, size) == -1 && tooSmall.empty(), "what does not fit is not written");
}

} // namespace

std::map<std::string, Input> Fuzz::seeds()
{
    std::map<std::string, Input> all;
    const Value values[] = {
        std::int8_t{-1},        std::int16_t{-300}, std::int32_t{70000}, INT64_MIN,        1.5F,       -0.0,
        std::string("t\0x", 3), std::uint8_t{255},  std::uint16_t{9},    std::uint32_t{9}, UINT64_MAX, true};
    DBObject object("B=1", 1, true, false, 0, 1, "A=1", 1);
    object.id = 7;
    for (const Value& value : values) {
        const std::string name = "v" + std::to_string(value.index());
        const Attribute attribute(false, name, value, 3, true, 0, true, false);
        object.addAttribute(Attribute(attribute));
        object.addAlternateAttribute(Attribute(attribute));
    }
    all["good_attribute"] = ofAttribute(*object.getAttribute("v6"));
    all["good_object"] = ofObject(object);
    object.addAttribute(Attribute(true, "long", std::string(5000, 'x'), 0, false, IPCData::STRING, true, false));
    all["good_object_compressed"] = ofObject(object);
    all["good_attribute_compressed"] = ofAttribute(*object.getAttribute("long"));
    Input claim = all["good_attribute_compressed"];
    claim.replace(1, 4, "\xFF\xFF\xFF\x7F", 4);
    all["claims_2_gib"] = claim;
    all["claims_nothing"] = claim.replace(1, 4, std::string(4, '\0'));
    all["claims_elements"] = Input("o\0\0\0\0\xDD\xFF\xFF\xFF\xFF", 10);
    all["deep"] = Input("o\0\0\0\0", headSize) + std::string(5000, '\x91');
    return all;
}

Grammar Fuzz::grammar()
{
    return {.form = Grammar::Form::messagePack, .separator = {}, .words = {"A=1", "v0", "v6", "", "\xC3\x28"}};
}

std::vector<Minimum> Fuzz::minimums()
{
    return {{"object accepted", 1, 1000},          {"object refused", 1, 1000},
            {"attribute accepted", 1, 1000},       {"attribute refused", 1, 1000},
            {"compressed object accepted", 1, 50}, {"compressed attribute accepted", 1, 50}};
}

void Fuzz::finish() {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < headSize)
        return 0;
    std::int32_t uncompressedSize = 0;
    std::memcpy(&uncompressedSize, data + 1, sizeof uncompressedSize);
    const auto length = static_cast<std::int32_t>(size - headSize);
    const bool isObject = (data[0] & 2) != 0; // o and a differ there
    const std::string what =
        std::string(uncompressedSize != 0 ? "compressed " : "") + (isObject ? "object " : "attribute ");
    bool accepted = false;
    if (isObject) {
        const auto object = DBObject::DeSerializeDatafromDB(data + headSize, length, uncompressedSize);
        accepted = object != nullptr;
        if (object)
            checkAgain(*object, DBObject::SerializeDataforDB, DBObject::DeSerializeDatafromDB);
    } else {
        const auto attribute = DBObject::DeSerializeAttrfromDB(data + headSize, length, uncompressedSize);
        accepted = attribute != nullptr;
        if (attribute)
            checkAgain(*attribute, DBObject::SerializeAttrforDB, DBObject::DeSerializeAttrfromDB);
    }
    reached(what + (accepted ? "accepted" : "refused"));
    return 0;
}
