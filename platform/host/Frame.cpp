// The frame header in bytes, and where the sockets stand. What frames mean to a connection is in
// PeerConnection.cpp.

#include "platform/host/Frame.h"

#include "platform/utility/SystemFunctions.h"

namespace TAMO::Wire {

namespace {

void putWord(std::uint8_t* to, std::uint32_t word)
{
    for (unsigned i = 0; i < 4; ++i)
        to[i] = static_cast<std::uint8_t>(word >> (8 * i));
}

std::uint32_t getWord(const std::uint8_t* from)
{
    std::uint32_t word = 0;
    for (unsigned i = 0; i < 4; ++i)
        word |= static_cast<std::uint32_t>(from[i]) << (8 * i);
    return word;
}

} // namespace

std::array<std::uint8_t, headerSize> encodeHeader(const FrameHeader& header)
{
    std::array<std::uint8_t, headerSize> bytes{};
    putWord(bytes.data(), header.length);
    putWord(bytes.data() + 4, header.id);
    putWord(bytes.data() + 8, static_cast<std::uint32_t>(header.sender));
    putWord(bytes.data() + 12, static_cast<std::uint32_t>(header.receiver));
    putWord(bytes.data() + 16, header.sequence);
    return bytes;
}

FrameHeader decodeHeader(const std::uint8_t* bytes)
{
    return {getWord(bytes), getWord(bytes + 4), static_cast<std::int32_t>(getWord(bytes + 8)),
            static_cast<std::int32_t>(getWord(bytes + 12)), getWord(bytes + 16)};
}

std::string socketPath(const std::string& directory, const std::string& nodeName)
{
    return directory + '/' + nodeName + ".sock";
}

std::string frameworkDirectory() { return getPath("TAMO_FRAMEWORK_DIR", "/run/tamo"); }

} // namespace TAMO::Wire
