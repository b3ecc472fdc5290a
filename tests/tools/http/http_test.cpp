// The HTTP server against clients of every kind.

#include <gtest/gtest.h>
#include <httplib/httplib.h>

#include <chrono>
#include <deque>
#include <thread>
#include <tuple>

#include "support/eventually.h"
#include "tools/http/http_server.h"

namespace tavistro::http {
namespace {

using namespace std::chrono_literals;

/// A connection that sends and receives whatever it is told to.
class Peer {
  public:
    explicit Peer(const HttpServer& server, const char* ip = "127.0.0.1") {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(server.port());
        inet_pton(AF_INET, ip, &to.sin_addr);
        is_connected = connect(socket_, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { httplib::detail::close_socket(socket_); }

    bool send(const std::string& text) {
        return httplib::detail::send_socket(socket_, text.data(), text.size(), 0) > 0;
    }
    /// What comes until `end` has come or the server closes.
    std::string receive(const std::string& end = "") {
        std::string text;
        char byte = 0;
        while ((end.empty() || !text.ends_with(end)) &&
               httplib::detail::select_read(socket_, 30, 0) > 0 && recv(socket_, &byte, 1, 0) == 1)
            text += byte;
        return text;
    }
    bool is_closed() {
        char byte = 0;
        return httplib::detail::select_read(socket_, 30, 0) > 0 && recv(socket_, &byte, 1, 0) <= 0;
    }

    bool is_connected = false;

  private:
    socket_t socket_ = socket(AF_INET, SOCK_STREAM, 0);
};

std::string request(const std::string& line, const std::string& headers = "") {
    return line + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n";
}

std::optional<HttpPage> pages(std::string_view target) {
    if (target == "/page?x=1") return HttpPage{"text/x", "the page"};
    if (target == "/long") return HttpPage{"text/x", std::string(50'000'000, 'x')};
    return std::nullopt;
}

TEST(Http, AnswersWhatItHasAndRefusesTheRestOnOneConnection) {
    const HttpServer server("localhost:0", pages);
    Peer peer(server);
    for (const auto& [line, headers, status, ending] :
         {std::tuple{"GET /page?x=1", "", "200 OK", "\r\n\r\nthe page"},
          {"HEAD /page?x=1", "", "200 OK", "\r\n\r\n"},
          {"GET /page", "", "404 Not Found", "no such page\n"},
          {"DELETE /page?x=1", "", "405 Method Not Allowed", "only GET and HEAD\n"},
          {"GET /page?x=1", "Range: bytes=0-,0-,0-,0-\r\n", "200 OK", "\r\n\r\nthe page"}}) {
        ASSERT_TRUE(peer.send(request(line, headers))) << line;
        const std::string answer = peer.receive(ending);
        EXPECT_TRUE(answer.starts_with(std::string("HTTP/1.1 ") + status + "\r\n")) << answer;
        EXPECT_TRUE(answer.ends_with(ending)) << answer;
        EXPECT_NE(answer.find("Cache-Control: no-store\r\n"), std::string::npos) << answer;
        if (answer.find(" 200 ") == std::string::npos) continue;
        EXPECT_NE(answer.find("Content-Length: 8\r\n"), std::string::npos) << answer;
        EXPECT_NE(answer.find("Content-Type: text/x\r\n"), std::string::npos) << answer;
    }
    peer.send(request("GET /page", "Connection: close\r\n"));
    EXPECT_TRUE(peer.receive().ends_with("no such page\n"));
}

TEST(Http, ListensAtThisComputerAloneAndAtAPortThatIsFree) {
    const HttpServer server("0", pages);
    EXPECT_TRUE(Peer(server).is_connected);
    EXPECT_FALSE(Peer(server, "127.0.0.2").is_connected);
    EXPECT_TRUE(Peer(HttpServer("0.0.0.0:0", pages), "127.0.0.2").is_connected);
    for (const auto& [address, start] : {std::pair{"0", "http://localhost:"},
                                         {"0.0.0.0:0", "http://localhost:"},
                                         {"127.0.0.2:0", "http://127.0.0.2:"},
                                         {"[::1]:0", "http://[::1]:"}}) {
        const HttpServer one(address, pages);
        EXPECT_EQ(one.url(), start + std::to_string(one.port()) + "/");
    }
    const std::string port = std::to_string(server.port());
    for (const std::string& address : {port, std::string("192.0.2.1:80"), std::string("x")}) {
        try {
            HttpServer second(address, pages);
            ADD_FAILURE() << address;
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(address), std::string::npos) << error.what();
        }
    }
    for (const char* const address :
         {"", "70000", "-1", "80 ", ":80", "elsewhere:80", "[::1]", "::1"})
        EXPECT_FALSE(is_http_address(address)) << address;
}

TEST(Http, CutsOffWhoeverIsSlowTalksNonsenseOrTooMuch) {
    const HttpServer server("0", pages, 300ms);
    for (const std::string& text :
         {std::string("\x16\x03\x01 no HTTP at all\r\n\r\n"),
          request("GET /page?x=1", "Cookie: " + std::string(5000, 'x') + "\r\n"),
          request("GET /page?x=1", "Range: bytes=" + std::string(8000, '0') + "-\r\n")}) {
        Peer peer(server);
        peer.send(text);
        const std::string answer = peer.receive();
        EXPECT_TRUE(answer.empty() || answer.starts_with("HTTP/1.1 4")) << answer;
    }
    std::string ranges;
    while (ranges.size() < 4000)
        ranges += "0-,";
    Peer many_ranges(server);
    many_ranges.send(request("GET /other", "Range: bytes=" + ranges + "0-\r\n"));
    EXPECT_TRUE(many_ranges.receive().starts_with("HTTP/1.1 404")) << "matched without harm";
    Peer slow(server);
    EXPECT_TRUE(test::eventually([&] {
        std::this_thread::sleep_for(20ms);
        return !slow.send("x");
    })) << "a letter now and then";
    EXPECT_TRUE(Peer(server).is_closed()) << "nothing";
    Peer peer(server);
    peer.send(request("GET /page?x=1"));
    EXPECT_TRUE(peer.receive("the page").ends_with("the page")) << "serves the others";
}

TEST(Http, HasANumberOfConnectionsAndStopsAtOnceWhateverTheyDo) {
    std::optional<HttpServer> server(std::in_place, "0", pages, std::chrono::hours(1));
    Peer half(*server);
    half.send("GET /pa");
    Peer deaf(*server);
    deaf.send(request("GET /long"));
    EXPECT_TRUE(deaf.receive("HTTP/1.1 200").ends_with("200"));
    Peer endless(*server);
    endless.send("GET /" + std::string(100'000, 'x'));
    EXPECT_TRUE(endless.is_closed());
    std::deque<Peer> idle;
    for (int i = 0; i < 40; ++i)
        idle.emplace_back(*server);
    EXPECT_TRUE(idle.back().is_closed());
    idle.clear();
    EXPECT_TRUE(test::eventually([&] {
        Peer peer(*server);
        peer.send(request("GET /page?x=1"));
        return peer.receive("the page").ends_with("the page");
    }));
    server.reset();  // does not wait an hour for any of them
    EXPECT_TRUE(half.is_closed());
}

}  // namespace
}  // namespace tavistro::http
