#pragma once

// Shared by the message and object encodings; includes msgpack, so only .cpp files of this folder
// include it.

#include "platform/messages/RawMessage.h"
#include "values/Value.h"

#include <msgpack.hpp>

#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

namespace TAMO::Wire {

/// Bytes that are not what the reader expects. The text says what was wrong.
class BadBytes : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

using Packer = msgpack::packer<msgpack::sbuffer>;

/// Unpacks the one value that `bytes` hold. The bytes are walked once without taking memory, so
/// that a count can never claim more than was received; deeper than 16 levels is refused.
msgpack::object_handle unpackWhole(const std::uint8_t* bytes, std::size_t length);

/// The elements of an array of exactly `count` elements.
const msgpack::object* elements(const msgpack::object& object, std::size_t count);

bool toBool(const msgpack::object& object);
/// A text of names and DNs: no embedded zero byte.
std::string toText(const msgpack::object& object);
/// Text or binary, any bytes.
std::string toBytes(const msgpack::object& object);
Value toValue(const msgpack::object& object);

template <class Integer>
Integer toInteger(const msgpack::object& object)
{
    if (object.type == msgpack::type::POSITIVE_INTEGER) {
        if (object.via.u64 <= static_cast<std::uint64_t>(std::numeric_limits<Integer>::max()))
            return static_cast<Integer>(object.via.u64);
    } else if (object.type == msgpack::type::NEGATIVE_INTEGER) {
        if constexpr (std::numeric_limits<Integer>::is_signed)
            if (object.via.i64 >= std::numeric_limits<Integer>::min())
                return static_cast<Integer>(object.via.i64);
    } else {
        throw BadBytes("no integer where one belongs");
    }
    throw BadBytes("an integer that does not fit its field");
}

void packText(Packer& packer, const std::string& text);
void packBytes(Packer& packer, const void* data, std::size_t length);
void packValue(Packer& packer, const Value& value);

} // namespace TAMO::Wire
