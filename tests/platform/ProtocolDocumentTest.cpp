// The bytes shown in docs/protocol.md, which clients in other languages are written by, are the bytes
// that travel.

#include "platform/messages/Answers.h"
#include "platform/utility/DBObject.h"
#include "tests/platform/PlatformTest.h"

#include <fstream>
#include <sstream>

namespace {

/// The hex blocks of the document; what stands behind a bar explains.
std::vector<Bytes> documentedFrames()
{
    std::vector<Bytes> frames;
    std::ifstream document(TAMO_SOURCE_DIR "/docs/protocol.md");
    bool inBlock = false;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("```")) {
            inBlock = line == "```hex";
            if (inBlock)
                frames.emplace_back();
        } else if (inBlock) {
            std::istringstream bytes(line.substr(0, line.find('|')));
            for (std::string byte; bytes >> byte;)
                frames.back().push_back(static_cast<std::uint8_t>(std::stoul(byte, nullptr, 16)));
        }
    }
    return frames;
}

Bytes frame(std::int32_t sender, std::int32_t receiver, std::uint32_t sequence, const Messages::Message& message)
{
    const Bytes body = message.serialize();
    const auto head =
        Wire::encodeHeader({static_cast<std::uint32_t>(body.size()), message.messageId(), sender, receiver, sequence});
    Bytes bytes(head.begin(), head.end());
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

TEST(ProtocolDocument, ShowsTheBytesThatTravel)
{
    Messages::TAMO_DBFetchAttr request;
    request.transId = 4711;
    request.dn = "A=1";
    request.attributeName = "n";
    Bytes item;
    std::int32_t uncompressed = 0;
    const std::int32_t length = DBObject::SerializeAttrforDB(
        Attribute(false, "n", Value(std::int32_t{-5}), 0, true, 3, false, false), item, 1000, uncompressed);
    const std::vector<Bytes> travelling{
        frame(100, -1, 0, Wire::Hello(100, "py")),
        frame(0, 100, 0, Wire::Hello(0, "db")),
        frame(100, 0, 1, request),
        frame(0, 100, 1, Messages::TAMO_DBFetchAttrRsp({11, 100, 0, true, item}, length, uncompressed, 4711)),
        frame(0, -1, 0, Wire::Refused("node id 100 is taken")),
    };
    EXPECT_EQ(documentedFrames(), travelling);
}

} // namespace
