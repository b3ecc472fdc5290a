// Serves small pages over HTTP from one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavistro::monitor {

struct HttpPage {
    std::string content_type;
    std::string body;
};

/// Whether `address` is "[ADDR:]PORT", with a number or localhost as ADDR.
bool is_http_address(const std::string& address);

class HttpServer {
  public:
    /// The page of a target ("/metrics", "/samples.json?after=5"); nothing for one that does not
    /// exist. Called on the server's thread.
    using Pages = std::function<std::optional<HttpPage>(std::string_view target)>;

    /// Listens at `address`, "[ADDR:]PORT" with 127.0.0.1 by default; port 0 takes a free one.
    /// Throws std::runtime_error, with the reason, for an address that is none or is taken.
    HttpServer(const std::string& address, Pages pages);
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    ~HttpServer();

    std::uint16_t port() const;

  private:
    class Listener;
    std::unique_ptr<Listener> listener_;
};

}  // namespace tavistro::monitor
