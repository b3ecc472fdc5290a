// Serves small pages over HTTP, to a few clients at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavistro::http {

struct HttpPage {
    std::string content_type;
    std::string body;
};

/// Whether `address` is "[ADDR:]PORT", with a number or localhost as ADDR.
bool is_http_address(const std::string& address);

class HttpServer {
  public:
    /// The page of a target ("/metrics", "/page?after=5"); nothing for one that does not
    /// exist. Called on the server's threads, on several at once.
    using Pages = std::function<std::optional<HttpPage>(std::string_view target)>;

    /// Listens at `address`, "[ADDR:]PORT" with 127.0.0.1 by default; port 0 takes a free one.
    /// Throws std::runtime_error for an address that is none or cannot be listened at. A request
    /// takes no longer than `patience`, from its first wait to the end of its answer.
    HttpServer(const std::string& address, Pages pages,
               std::chrono::milliseconds patience = std::chrono::seconds(10));
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    /// Closes every connection, whatever its client does, within a tenth of a second.
    ~HttpServer();

    std::uint16_t port() const;
    /// Of the page "/", for a browser on this computer.
    std::string url() const;

  private:
    class Server;
    std::unique_ptr<Server> server_;
};

}  // namespace tavistro::http
