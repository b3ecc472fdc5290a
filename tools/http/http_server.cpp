#include "tools/http/http_server.h"

#include <httplib/httplib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

namespace tavistro::http {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds pause_after_failure{100};
constexpr time_t wake_every_us = 50'000;  ///< to see whether the server stops
constexpr std::size_t most_connections = 32;
constexpr std::size_t longest_request_bytes = 16384;

/// A number and a port.
std::optional<std::pair<std::string, std::uint16_t>> address_of(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    std::string host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    const std::string port_text = colon == std::string::npos ? text : text.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (host == "localhost") host = "127.0.0.1";
    std::uint16_t port = 0;
    const char* const end = port_text.data() + port_text.size();
    const auto parsed = std::from_chars(port_text.data(), end, port);
    std::array<char, sizeof(in6_addr)> ip;
    const bool is_ip = inet_pton(AF_INET, host.c_str(), ip.data()) == 1 ||
                       inet_pton(AF_INET6, host.c_str(), ip.data()) == 1;
    if (!is_ip || parsed.ec != std::errc() || parsed.ptr != end) return {};
    return std::pair(host, port);
}

/// A connection to a client that may be slow or hostile: neither the length of a request nor the
/// time that it takes is without a limit, and the end of the server ends every wait. The socket
/// does not block.
class Connection : public httplib::detail::SocketStream {
  public:
    Connection(socket_t socket, const std::atomic<bool>& stops)
        : SocketStream(socket, 0, 0, 0, 0), stops_(stops) {}

    void begin_request(std::chrono::milliseconds patience) {
        until_ = Clock::now() + patience;
        left_bytes_ = longest_request_bytes;
    }
    bool is_readable() const override { return becomes(httplib::detail::select_read); }
    bool is_writable() const override { return becomes(httplib::detail::select_write); }
    ssize_t read(char* to, std::size_t size) override {
        const ssize_t count = SocketStream::read(to, std::min(size, left_bytes_));
        left_bytes_ -= static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        return left_bytes_ == 0 ? -1 : count;
    }

  private:
    template <typename Select>
    bool becomes(const Select& select) const {
        ssize_t ready = 0;
        while (ready == 0 && !stops_ && Clock::now() < until_)
            ready = select(socket(), 0, wake_every_us);
        return ready > 0;
    }

    const std::atomic<bool>& stops_;
    Clock::time_point until_;
    std::size_t left_bytes_ = 0;
};

}  // namespace

/// Requests and answers are the library's; connections are accepted here, since its own loop ends
/// at the first one that fails, and takes any number.
class HttpServer::Server : private httplib::Server {
  public:
    Server(const std::string& text, Pages pages, std::chrono::milliseconds patience)
        : pages_(std::move(pages)), patience_(patience) {
        const auto address = address_of(text);
        if (!address) throw std::runtime_error("'" + text + "' is not [ADDR:]PORT");
        set_socket_options([](socket_t socket) {
            const int on = 1;
            setsockopt(socket, SOL_SOCKET, TAVISTRO_LISTENING_OPTION,
                       reinterpret_cast<const char*>(&on), sizeof on);
        });
        set_keep_alive_timeout(patience / std::chrono::seconds(1));
        set_keep_alive_max_count(1'000'000);
        set_default_headers({{"Cache-Control", "no-store"}});
        set_pre_routing_handler([this](const auto& request, auto& response) {
            answer(request, response);
            return HandlerResponse::Handled;
        });
        const auto& [host, port] = *address;
        host_ = host;
        port_ = port == 0 ? bind_to_any_port(host, AI_NUMERICHOST) : port;
        if (port_ < 0 || (port != 0 && !bind_to_port(host, port, AI_NUMERICHOST)))
            throw std::runtime_error("cannot listen at " + text +
                                     ": it is taken, not permitted or not this computer's");
        workers_.emplace(most_connections);
        thread_ = std::thread([this] { accept_all(); });
    }
    ~Server() override {
        stops_ = true;
        thread_.join();
        workers_->shutdown();
        httplib::detail::close_socket(svr_sock_);
    }
    std::uint16_t port() const { return static_cast<std::uint16_t>(port_); }
    std::string url() const {
        std::string host = host_;
        if (host == "127.0.0.1" || host == "0.0.0.0" || host == "::") host = "localhost";
        if (host.find(':') != std::string::npos) host = "[" + host + "]";
        return "http://" + host + ":" + std::to_string(port_) + "/";
    }

  private:
    void accept_all() {
        while (!stops_) {
            if (httplib::detail::select_read(svr_sock_, 0, wake_every_us) <= 0) continue;
            const socket_t socket = accept(svr_sock_, nullptr, nullptr);
            if (socket == INVALID_SOCKET) {
                // Out of descriptors, most likely: not at once again.
                std::this_thread::sleep_for(pause_after_failure);
            } else if (open_ == most_connections) {
                httplib::detail::close_socket(socket);
            } else {
                httplib::detail::set_nonblocking(socket, true);
                ++open_;
                workers_->enqueue([this, socket] { serve(socket); });
            }
        }
    }

    /// Requests one after the other, until the client closes, is too slow or is not understood.
    void serve(socket_t socket) {
        Connection connection(socket, stops_);
        bool goes_on = true;
        bool is_last = false;
        while (goes_on && !is_last) {
            bool is_understood = false;
            connection.begin_request(patience_);
            goes_on = process_request(connection, false, is_last, [&](httplib::Request& request) {
                is_understood = true;
                request.ranges.clear();  // many of them would make a long answer
            });
            goes_on = goes_on && is_understood;
        }
        httplib::detail::shutdown_socket(socket);
        httplib::detail::close_socket(socket);
        --open_;
    }

    void answer(const httplib::Request& request, httplib::Response& response) const {
        constexpr const char* text = "text/plain; charset=utf-8";
        response.status = 200;
        if (request.method != "GET" && request.method != "HEAD") {
            response.status = 405;
            response.set_header("Allow", "GET, HEAD");
            response.set_content("only GET and HEAD\n", text);
        } else if (auto page = pages_(request.target)) {
            response.set_header("Content-Type", page->content_type);
            response.body = std::move(page->body);
        } else {
            response.status = 404;
            response.set_content("no such page\n", text);
        }
    }

    Pages pages_;
    std::chrono::milliseconds patience_;
    std::string host_;
    int port_ = 0;
    std::atomic<bool> stops_{false};
    std::atomic<std::size_t> open_{0};
    std::optional<httplib::ThreadPool> workers_;
    std::thread thread_;
};

bool is_http_address(const std::string& address) {
    return address_of(address).has_value();
}

HttpServer::HttpServer(const std::string& address, Pages pages, std::chrono::milliseconds patience)
    : server_(std::make_unique<Server>(address, std::move(pages), patience)) {}

HttpServer::~HttpServer() = default;

std::uint16_t HttpServer::port() const {
    return server_->port();
}

std::string HttpServer::url() const {
    return server_->url();
}

}  // namespace tavistro::http
