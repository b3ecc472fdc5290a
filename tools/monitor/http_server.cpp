#include "tools/monitor/http_server.h"

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/version.hpp>
#include <charconv>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

namespace tavistro::monitor {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::ip::tcp;

constexpr std::chrono::seconds patience{10};
constexpr std::chrono::milliseconds pause_after_failure{100};
constexpr int most_connections = 64;

std::optional<tcp::endpoint> endpoint_of(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    std::string address = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    const std::string port_text = colon == std::string::npos ? text : text.substr(colon + 1);
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    if (address == "localhost") address = "127.0.0.1";
    std::uint16_t port = 0;
    const char* const end = port_text.data() + port_text.size();
    const auto parsed = std::from_chars(port_text.data(), end, port);
    beast::error_code error;
    const auto ip = asio::ip::make_address(address, error);
    if (error || parsed.ec != std::errc() || parsed.ptr != end || port_text.empty()) return {};
    return tcp::endpoint{ip, port};
}

/// One connection: requests one after the other, until the client closes or is too slow.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(tcp::socket socket, const HttpServer::Pages& pages, int& open)
        : stream_(std::move(socket)), pages_(pages), open_(open) {
        ++open_;
    }
    ~Connection() { --open_; }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void read() {
        request_ = {};
        stream_.expires_after(patience);
        http::async_read(stream_, buffer_, request_,
                         [self = shared_from_this()](beast::error_code error, std::size_t) {
                             if (!error) self->answer();
                         });
    }

  private:
    void answer() {
        response_ = {};
        response_.version(request_.version());
        response_.keep_alive(request_.keep_alive());
        response_.set(http::field::cache_control, "no-store");
        response_.set(http::field::content_type, "text/plain; charset=utf-8");
        const bool head = request_.method() == http::verb::head;
        if (!head && request_.method() != http::verb::get) {
            response_.result(http::status::method_not_allowed);
            response_.set(http::field::allow, "GET, HEAD");
            response_.body() = "only GET and HEAD\n";
        } else if (auto page = pages_({request_.target().data(), request_.target().size()})) {
            response_.set(http::field::content_type, page->content_type);
            response_.body() = std::move(page->body);
        } else {
            response_.result(http::status::not_found);
            response_.body() =
                "no such page; there are /, /metrics, /samples.json and /diagnosis.json\n";
        }
        response_.prepare_payload();
        if (head) response_.body().clear();
        http::async_write(stream_, response_,
                          [self = shared_from_this()](beast::error_code error, std::size_t) {
                              if (!error && self->response_.keep_alive()) self->read();
                          });
    }

    beast::tcp_stream stream_;
    const HttpServer::Pages& pages_;
    int& open_;
    beast::flat_buffer buffer_{16384};  // larger requests are refused
    http::request<http::empty_body> request_;
    http::response<http::string_body> response_;
};

}  // namespace

class HttpServer::Listener {
  public:
    Listener(const tcp::endpoint& endpoint, Pages pages)
        : pages_(std::move(pages)), acceptor_(context_, endpoint) {
        accept();
        thread_ = std::thread([this] { context_.run(); });
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() {
        context_.stop();
        thread_.join();
    }
    std::uint16_t port() const { return acceptor_.local_endpoint().port(); }

  private:
    void accept() {
        acceptor_.async_accept([this](beast::error_code error, tcp::socket socket) {
            // Out of descriptors, most likely: not at once again.
            if (error) std::this_thread::sleep_for(pause_after_failure);
            if (!error && open_ < most_connections)
                std::make_shared<Connection>(std::move(socket), pages_, open_)->read();
            accept();
        });
    }

    Pages pages_;
    int open_ = 0;  ///< connections; they may outlive the acceptor, not the context
    asio::io_context context_{1};
    tcp::acceptor acceptor_;
    std::thread thread_;
};

bool is_http_address(const std::string& address) {
    return endpoint_of(address).has_value();
}

HttpServer::HttpServer(const std::string& address, Pages pages) {
    const auto endpoint = endpoint_of(address);
    if (!endpoint) throw std::runtime_error("'" + address + "' is not [ADDR:]PORT");
    try {
        listener_ = std::make_unique<Listener>(*endpoint, std::move(pages));
    } catch (const boost::system::system_error& error) {
        throw std::runtime_error("cannot listen at " + address + ": " + error.code().message());
    }
}

HttpServer::~HttpServer() = default;

std::uint16_t HttpServer::port() const {
    return listener_->port();
}

}  // namespace tavistro::monitor
