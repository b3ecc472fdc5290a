#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <tuple>

#include "support/scripted_server.h"
#include "tools/host/server_survey.h"
#include "tools/host/servers_command.h"

namespace tavistro::host {
namespace {

constexpr std::uint32_t localhost = 0x7F000001;
constexpr std::uint32_t own_address = 0xC0A80005;
constexpr std::uint32_t lan_address = 0xC0A80009;
constexpr std::uint32_t far_address = 0x08080808;

TEST(ServerSurvey, ListsEveryServerOnceNearestFirstWhateverItSpeaks) {
    ServerSurvey survey(7, 99, [](std::uint32_t a) { return a == localhost || a == own_address; });
    const auto reply = [](std::uint16_t port, std::uint32_t version = 5, std::uint64_t nonce = 99,
                          std::uint32_t client_id = 7) {
        return TavistroProtocol::encode_discover_reply({client_id, nonce, port, version});
    };
    auto older = reply(1);
    older[4] = 4;  // the version in its header
    const std::tuple<TavistroProtocol::Datagram, std::uint32_t, std::uint64_t> answers[] = {
        {reply(50), far_address, 1},
        {reply(50), own_address, 2},
        {reply(50), localhost, 3},
        {reply(50), own_address, 4},
        {reply(51), localhost, 5},
        {reply(50, 6), lan_address, 6},
        {older, lan_address, 8},
        {reply(53, 5, 98), lan_address, 9},
        {reply(53, 5, 99, 8), lan_address, 9},
        {{1, 2, 3}, lan_address, 9},
    };
    for (const auto& [datagram, from, round_trip_ns] : answers)
        survey.offer(datagram, {from, 60}, round_trip_ns);
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
              "192.168.0.9:60 1 v4 no 8\n"
              "8.8.8.8:50 2 v5 yes 1\n");
}

TEST(ServersCommand, ListsWhoAnswersOnThisHostAndSaysWhoWasAskedWhenNobodyDoes) {
    std::optional<test::ScriptedServer> server(std::in_place);
    const std::uint16_t port = server->port();
    std::ostringstream out;
    std::ostringstream errors;
    // A loaded machine may need several tries.
    for (int tries = 0; tries < 10 && out.str().empty(); ++tries)
        list_servers({.timeout_ms = 500, .port = port, .json = true}, out, errors);
    server.reset();
    const auto line = nlohmann::json::parse(out.str());
    EXPECT_EQ(line["address"], "127.0.0.1");
    EXPECT_EQ(line["port"], port);
    EXPECT_EQ(line["address_class"]["text"], "this host");
    EXPECT_EQ(line["compatible"], true);

    errors.str("");
    EXPECT_EQ(list_servers({.timeout_ms = 1, .address = localhost, .port = port}, out, errors), 1);
    EXPECT_EQ(errors.str(),
              "no server answered within 1 ms; asked: 127.0.0.1:" + std::to_string(port) + "\n");
}

}  // namespace
}  // namespace tavistro::host
