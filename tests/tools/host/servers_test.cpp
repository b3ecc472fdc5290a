#include <gtest/gtest.h>

#include <array>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "net/server_messages.h"
#include "tools/host/server_survey.h"
#include "tools/host/servers_command.h"

namespace tavistro::host {
namespace {

using TavistroProtocol::encode_discover_reply;

constexpr std::uint32_t localhost = 0x7F000001;
constexpr std::uint32_t own_address = 0xC0A80005;
constexpr std::uint32_t lan_address = 0xC0A80009;
constexpr std::uint32_t far_address = 0x08080808;

TEST(ServerSurvey, ListsEveryServerOnceNearestFirstWhateverItSpeaks) {
    ServerSurvey survey(7, 99, [](std::uint32_t a) { return a == localhost || a == own_address; });
    auto older = encode_discover_reply({.client_id = 7, .nonce = 99, .port = 1});
    older[4] = 4;  // the version in its header
    struct {
        TavistroProtocol::Datagram datagram;
        std::uint32_t from;
        std::uint64_t round_trip_ns;
    } const answers[] = {
        {encode_discover_reply({.client_id = 7, .nonce = 99, .port = 50}), far_address, 1},
        {encode_discover_reply({.client_id = 7, .nonce = 99, .port = 50}), own_address, 2},
        {encode_discover_reply({.client_id = 7, .nonce = 99, .port = 50}), localhost, 3},
        {encode_discover_reply({.client_id = 7, .nonce = 99, .port = 50}), own_address, 4},
        {encode_discover_reply({.client_id = 7, .nonce = 99, .port = 51}), localhost, 5},
        {encode_discover_reply({.client_id = 7, .nonce = 99, .port = 50, .version = 6}),
         lan_address, 6},
        {encode_discover_reply({.client_id = 7, .nonce = 99, .port = 52, .capability = 1}),
         lan_address, 7},
        {older, lan_address, 8},
        {encode_discover_reply({.client_id = 7, .nonce = 98, .port = 53}), lan_address, 9},
        {encode_discover_reply({.client_id = 8, .nonce = 99, .port = 53}), lan_address, 9},
        {{1, 2, 3}, lan_address, 9},
    };
    for (const auto& answer : answers)
        survey.offer(answer.datagram, {answer.from, 60}, answer.round_trip_ns);
    std::ostringstream listed;
    for (const AnsweringServer& server : survey.servers()) {
        listed << platform::format_ipv4(server.endpoint.address) << ':' << server.endpoint.port
               << ' ' << server.address_class << " v" << server.protocol_version
               << (server.compatible ? " yes " : " no ") << server.round_trip_ns << '\n';
    }
    EXPECT_EQ(listed.str(),
              "127.0.0.1:50 0 v5 yes 3\n"
              "127.0.0.1:51 0 v5 yes 5\n"
              "192.168.0.9:50 1 v6 no 6\n"
              "192.168.0.9:52 1 v5 no 7\n"
              "192.168.0.9:60 1 v4 no 8\n"
              "8.8.8.8:50 2 v5 yes 1\n");
}

TEST(ServersCommand, ListsWhoAnswersOnThisHostAndSaysWhoWasAskedWhenNobodyDoes) {
    platform::UdpSocket socket;
    ASSERT_TRUE(socket.open({.bind = {localhost, 0}}));
    const std::uint16_t port = socket.local_endpoint().port;
    std::thread server([&] {
        std::array<std::uint8_t, 64> buffer;
        for (auto got = socket.receive(buffer); got.status != platform::ReceiveStatus::closed;
             got = socket.receive(buffer)) {
            const auto asked = TavistroProtocol::decode_discover(std::span(buffer).first(got.size));
            if (!asked) continue;
            socket.send_to(encode_discover_reply({.client_id = asked.message.client_id,
                                                  .nonce = asked.message.nonce,
                                                  .port = 1234}),
                           got.source);
        }
    });
    std::ostringstream out;
    std::ostringstream errors;
    // A loaded machine may need several tries.
    for (int tries = 0; tries < 10 && out.str().empty(); ++tries)
        list_servers({.timeout_ms = 500, .port = port, .json = true}, out, errors);
    socket.close();
    server.join();
    const auto line = nlohmann::json::parse(out.str());
    EXPECT_EQ(line["address"], "127.0.0.1");
    EXPECT_EQ(line["port"], 1234);
    EXPECT_EQ(line["address_class"]["text"], "this host");
    EXPECT_EQ(line["compatible"], true);

    errors.str("");
    EXPECT_EQ(list_servers({.timeout_ms = 1, .address = localhost, .port = port}, out, errors), 1);
    EXPECT_EQ(errors.str(),
              "no server answered within 1 ms; asked: 127.0.0.1:" + std::to_string(port) + "\n");
}

}  // namespace
}  // namespace tavistro::host
