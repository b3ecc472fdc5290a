#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <tuple>

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
    const std::string port = std::to_string(server->port());
    const ServersOptions options{.timeout_ms = 500, .port = server->port()};
    std::ostringstream out;
    std::ostringstream errors;
    EXPECT_EQ(list_servers(options, false, out, errors), 0) << errors.str();
    std::string line = "127.0.0.1:" + port;
    line.append(23 - line.size(), ' ').append("this host        protocol 5  compatible    ");
    EXPECT_TRUE(out.str().starts_with(line)) << out.str();
    out.str("");
    EXPECT_EQ(list_servers(options, true, out, errors), 0) << errors.str();
    EXPECT_TRUE(out.str().starts_with(
        R"({"type":"server","address":"127.0.0.1","port":)" + port +
        R"(,"address_class":0,"address_class_text":"this host","protocol_version":5,)"
        R"("compatible":true,"rtt_us":)"))
        << out.str();
    server.reset();

    EXPECT_EQ(list_servers({1, localhost, options.port}, false, out, errors), 1);
    EXPECT_EQ(list_servers({1, {}, options.port}, false, out, errors), 1);
    const std::string told = "no server answered within 1 ms; asked: 127.0.0.1:" + port;
    EXPECT_TRUE(errors.str().starts_with(told + "\n" + told + " and 255.255.255.255:" + port))
        << errors.str();
    AnsweringServer far{};
    far.round_trip_ns = 1'234'567;
    EXPECT_TRUE(json_line(far).ends_with(R"("rtt_us":1234})"));
}

}  // namespace
}  // namespace tavistro::host
