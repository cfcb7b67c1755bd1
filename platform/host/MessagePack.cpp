// MessagePack as messages and objects use it: hostile bytes are refused here, before any memory is
// taken for what they claim.

#include "platform/host/MessagePack.h"

namespace TAMO::Wire {

namespace {

constexpr int maxDepth = 16;

/// An unpacked element takes 24 bytes however short its packed form is.
constexpr std::uint64_t maxElements = 1024 * 1024;

/// Walks the bytes without building anything; refuses what is nested too deep or counts too much.
class ShapeCheck : public msgpack::null_visitor {
public:
    bool start_array(std::uint32_t size) { return enter(size); }
    bool end_array() { return leave(); }
    bool start_map(std::uint32_t size) { return enter(2 * std::uint64_t{size}); }
    bool end_map() { return leave(); }

private:
    bool enter(std::uint64_t size)
    {
        m_elements += size;
        return ++m_depth <= maxDepth && m_elements <= maxElements;
    }
    bool leave()
    {
        --m_depth;
        return true;
    }

    int m_depth = 0;
    std::uint64_t m_elements = 0;
};

template <class Number>
Number toNumber(const msgpack::object& object)
{
    switch (object.type) {
    case msgpack::type::FLOAT32:
    case msgpack::type::FLOAT64:
        if (std::isnan(object.via.f64))
            throw BadBytes("not a number");
        if (std::isfinite(object.via.f64) &&
            std::abs(object.via.f64) > static_cast<double>(std::numeric_limits<Number>::max()))
            throw BadBytes("a number that does not fit its field");
        return static_cast<Number>(object.via.f64);
    case msgpack::type::POSITIVE_INTEGER:
        return static_cast<Number>(object.via.u64);
    case msgpack::type::NEGATIVE_INTEGER:
        return static_cast<Number>(object.via.i64);
    default:
        throw BadBytes("no number where one belongs");
    }
}

} // namespace

msgpack::object_handle unpackWhole(const std::uint8_t* bytes, std::size_t length)
{
    const auto* data = reinterpret_cast<const char*>(bytes);
    ShapeCheck check;
    std::size_t walked = 0;
    if (!msgpack::parse(data, length, walked, check) || walked != length)
        throw BadBytes("not one whole MessagePack value");
    const msgpack::unpack_limit limit(length, length, length, length, length, maxDepth);
    return msgpack::unpack(data, length, nullptr, nullptr, limit);
}

const msgpack::object* elements(const msgpack::object& object, std::size_t count)
{
    if (object.type != msgpack::type::ARRAY || object.via.array.size != count)
        throw BadBytes("no array of " + std::to_string(count) + " elements where one belongs");
    return object.via.array.ptr;
}

bool toBool(const msgpack::object& object)
{
    if (object.type != msgpack::type::BOOLEAN)
        throw BadBytes("no boolean where one belongs");
    return object.via.boolean;
}

std::string toBytes(const msgpack::object& object)
{
    if (object.type == msgpack::type::STR)
        return {object.via.str.ptr, object.via.str.size};
    if (object.type == msgpack::type::BIN)
        return {object.via.bin.ptr, object.via.bin.size};
    throw BadBytes("no text where one belongs");
}

std::string toText(const msgpack::object& object)
{
    std::string text = toBytes(object);
    if (text.find('\0') != std::string::npos)
        throw BadBytes("a name with a zero byte in it");
    return text;
}

Value toValue(const msgpack::object& object)
{
    const msgpack::object* part = elements(object, 2);
    const msgpack::object& content = part[1];
    switch (toInteger<std::uint32_t>(part[0])) {
    case 0:
        return toInteger<std::int8_t>(content);
    case 1:
        return toInteger<std::int16_t>(content);
    case 2:
        return toInteger<std::int32_t>(content);
    case 3:
        return toInteger<std::int64_t>(content);
    case 4:
        return toNumber<float>(content);
    case 5:
        return toNumber<double>(content);
    case 6:
    case 12: // a pointer cannot travel: its text does
        return toBytes(content);
    case 7:
        return toInteger<std::uint8_t>(content);
    case 8:
        return toInteger<std::uint16_t>(content);
    case 9:
        return toInteger<std::uint32_t>(content);
    case 10:
        return toInteger<std::uint64_t>(content);
    case 11:
        return toBool(content);
    default:
        throw BadBytes("a value of an unknown kind");
    }
}

void packText(Packer& packer, const std::string& text)
{
    packer.pack_str(static_cast<std::uint32_t>(text.size()));
    packer.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
}

void packBytes(Packer& packer, const void* data, std::size_t length)
{
    packer.pack_bin(static_cast<std::uint32_t>(length));
    packer.pack_bin_body(static_cast<const char*>(data), static_cast<std::uint32_t>(length));
}

void packValue(Packer& packer, const Value& value)
{
    packer.pack_array(2);
    std::visit(
        [&](const auto& held) {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, const char*>) {
                packer.pack(6);
                const std::string text = held ? held : "";
                packBytes(packer, text.data(), text.size());
            } else {
                packer.pack(static_cast<std::uint32_t>(value.index()));
                if constexpr (std::is_same_v<Held, std::string>)
                    packBytes(packer, held.data(), held.size());
                else if constexpr (std::is_same_v<Held, std::int8_t>)
                    packer.pack(static_cast<std::int32_t>(held));
                else
                    packer.pack(held);
            }
        },
        value);
}

} // namespace TAMO::Wire
