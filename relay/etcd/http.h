// HTTP/1.1 to one member of the store: single calls over a few kept connections, and one streamed
// answer. Plain or TLS. Nothing waits longer than its deadline.
#pragma once
#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>

#include "relay/etcd/config.h"

namespace ds::relay::etcd {

namespace asio = boost::asio;

template <typename T> using Task = asio::awaitable<T>;
using Duration = std::chrono::milliseconds;

// A call or connection that failed; the text names the endpoint and the reason.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The store refused a call with this text.
class Refused : public Failure {
  public:
    using Failure::Failure;
};

struct Endpoint {
    bool is_tls = false;
    std::string host;
    std::string port;
    std::string authority; // host and port as they were configured
    std::string text;      // all of it as it was configured
};

// Throws Failure for anything but http://host:port and https://host:port.
Endpoint parse_endpoint(const std::string &text);

// The certificates of the configuration; throws Failure when they cannot be read.
std::shared_ptr<asio::ssl::context> make_tls_context(const EtcdConfig &config);

// One connection. Where a function fails the connection is of no further use.
class Connection {
  public:
    virtual ~Connection() = default;

    virtual Task<void> open(Duration deadline) = 0;
    // The body of the answer; throws Refused when it is not status 200.
    virtual Task<std::string> call(std::string_view path, std::string body, Duration deadline) = 0;
    // Sends a request whose answer goes on. Then next_chunk() gives more of the answer.
    virtual Task<void> open_stream(std::string_view path, std::string body, Duration deadline) = 0;
    virtual Task<std::string> next_chunk() = 0;
    // Whether the server keeps the connection open for another call.
    virtual bool is_kept() const = 0;
    // Ends whatever is under way; it fails.
    virtual void close() = 0;
};

// All connections to one endpoint.
class Client {
  public:
    Client(asio::io_context &io, Endpoint endpoint, std::shared_ptr<asio::ssl::context> tls,
           Duration connect_deadline, Duration call_deadline);
    ~Client();

    const Endpoint &endpoint() const { return endpoint_; }

    Task<std::string> call(std::string_view path, std::string body);
    // A connection of its own, on which the stream was opened. Stays known to close().
    Task<std::shared_ptr<Connection>> stream(std::string_view path, std::string body);
    // Ends everything under way; the client is of no further use.
    void close();

  private:
    Task<std::shared_ptr<Connection>> connect();

    asio::io_context &io_;
    Endpoint endpoint_;
    std::shared_ptr<asio::ssl::context> tls_;
    Duration connect_deadline_, call_deadline_;
    std::vector<std::shared_ptr<Connection>> idle_;
    std::vector<std::weak_ptr<Connection>> open_;
    bool is_closed_ = false;
};

// Cuts a stream into lines.
class LineReader {
  public:
    explicit LineReader(std::shared_ptr<Connection> stream) : stream_(std::move(stream)) {}
    // The next line without its end.
    Task<std::string> next_line();

  private:
    std::shared_ptr<Connection> stream_;
    std::string buffer_;
    std::size_t read_ = 0; // bytes of the buffer that were given out
    std::size_t searched_ = 0;
};

} // namespace ds::relay::etcd
