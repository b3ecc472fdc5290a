// The examples of docs/protocol.md, made by the codecs.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "net/server_messages.h"

namespace TavistroProtocol {
namespace {

/// The bytes shown under each heading of a message, by the message's name.
std::map<std::string, Datagram> examples_of_document() {
    std::map<std::string, Datagram> examples;
    std::ifstream file(TAVISTRO_DOCS "/protocol.md");
    std::string name;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("### ")) name = line.substr(4, line.find(' ', 4) - 4);
        if (!line.starts_with("    ")) continue;
        std::istringstream bytes(line);
        for (unsigned byte = 0; bytes >> std::hex >> byte;)
            examples[name].push_back(static_cast<std::uint8_t>(byte));
    }
    return examples;
}

TEST(ProtocolDocument, ShowsWhatTheCodecsSend) {
    constexpr std::uint32_t client_id = 7;
    constexpr std::uint64_t nonce = 0x1122334455667788;
    const float samples[] = {1.0F, -0.5F};
    DatagramList audio;
    ASSERT_TRUE(encode_audio_block({client_id, 1000, 48000, 2, 1, samples}, 1200, audio));
    const std::map<std::string, Datagram> sent = {
        {"Announce", encode_announce({client_id, 0x01020304, 6, 6, {2, 3}, {0}})},
        {"Audio", audio.front()},
        {"Sync", encode_sync(client_id, {1000, 48000, 128, 128000, 1234567890123})},
        {"Discover", encode_discover({client_id, nonce})},
        {"DiscoverReply", encode_discover_reply({client_id, nonce, 28010})},
        {"Ping", encode_ping({client_id, nonce, 1000000001})},
        {"Pong", encode_pong({client_id, nonce, 1000000001, 2000000002, 2000000003})},
    };
    EXPECT_EQ(examples_of_document(), sent);
}

}  // namespace
}  // namespace TavistroProtocol
