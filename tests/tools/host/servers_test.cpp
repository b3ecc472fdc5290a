#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <utility>

#include "support/scripted_server.h"
#include "tools/host/commands.h"
#include "tools/host/json_lines.h"

namespace tavistro::host {
namespace {

constexpr std::uint32_t localhost = 0x7F000001;
constexpr std::uint32_t own_address = 0xC0A80005;
constexpr std::uint32_t lan_address = 0xC0A80009;
constexpr std::uint32_t far_address = 0x08080808;

TEST(ServerSurvey, ListsEveryServerOnceNearestFirstWhateverItSpeaks) {
    ServerSurvey survey(7, 99, [](std::uint32_t a) { return a == localhost || a == own_address; });
    const auto reply = [](std::uint16_t port, std::uint32_t version = 5, std::uint64_t nonce = 99) {
        return TavistroProtocol::encode_discover_reply({7, nonce, port, version});
    };
    auto older = reply(1);
    older[4] = 4;  // the version in its header
    std::uint64_t round_trip_ns = 0;
    for (const auto& [datagram, from] : {std::pair{reply(50), far_address},
                                         {reply(50), own_address},
                                         {reply(50), localhost},
                                         {reply(51), localhost},
                                         {reply(50, 6), lan_address},
                                         {older, lan_address},
                                         {reply(53, 5, 98), lan_address},
                                         {{1, 2, 3}, lan_address}})
        survey.offer(datagram, {from, 60}, round_trip_ns += 1000);
    std::ostringstream listed;
    for (const AnsweringServer& server : survey.servers())
        listed << platform::format_ipv4(server.endpoint.address) << ':' << server.endpoint.port
               << " v" << server.protocol_version << (server.compatible ? " yes\n" : " no\n");
    EXPECT_EQ(listed.str(),
              "127.0.0.1:50 v5 yes\n127.0.0.1:51 v5 yes\n192.168.0.9:50 v6 no\n"
              "192.168.0.9:60 v4 no\n8.8.8.8:50 v5 yes\n");
    EXPECT_EQ(
        json_line(survey.servers().back()),
        R"({"type":"server","address":"8.8.8.8","port":50,"address_class":2,)"
        R"("address_class_text":"elsewhere","protocol_version":5,"compatible":true,"rtt_us":1})");
}

TEST(ServersCommand, ListsWhoAnswersOnThisHostAndSaysWhoWasAskedWhenNobodyDoes) {
    std::optional<test::ScriptedServer> server(std::in_place);
    const std::string port = std::to_string(server->port());
    const ServersOptions options{.timeout_ms = 500, .port = server->port()};
    std::ostringstream out, errors;
    EXPECT_EQ(list_servers(options, false, out, errors), 0) << errors.str();
    std::string line = "127.0.0.1:" + port;
    line.append(23 - line.size(), ' ').append("this host        protocol 5  compatible    ");
    EXPECT_TRUE(out.str().starts_with(line)) << out.str();
    server.reset();

    EXPECT_EQ(list_servers({1, localhost, options.port}, false, out, errors), 1);
    EXPECT_EQ(list_servers({1, {}, options.port}, false, out, errors), 1);
    const std::string told = "no server answered within 1 ms; asked: 127.0.0.1:" + port;
    EXPECT_TRUE(errors.str().starts_with(told + "\n" + told + " and 255.255.255.255:" + port))
        << errors.str();
}

}  // namespace
}  // namespace tavistro::host
