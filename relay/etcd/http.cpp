#include "relay/etcd/http.h"

#include <netinet/tcp.h>

#include <array>
#include <openssl/ssl.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include "relay/etcd/messages.h"

namespace ds::relay::etcd {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::use_awaitable;
using asio::ip::tcp;

namespace {

constexpr std::size_t idle_max = 8;
// One read takes as much as the buffer has room for, and by itself it would not grow beyond half a
// kilobyte: a hundred reads for the events of one transaction.
constexpr std::size_t read_bytes = 16ull * 1024;
constexpr std::uint64_t answer_bytes_max = 256ull * 1024 * 1024;
constexpr std::size_t line_bytes_max = 256ull * 1024 * 1024;

using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

Failure failure_at(const Endpoint &endpoint, const std::string &what) {
    return Failure(endpoint.text + ": " + what);
}

// The kernel looks after streams on which nothing comes: whether the other side is still there.
void set_options(tcp::socket &socket) {
    socket.set_option(tcp::no_delay(true));
    socket.set_option(asio::socket_base::keep_alive(true));
    const std::pair<int, int> options[] = {
        {TCP_KEEPIDLE, 5}, {TCP_KEEPINTVL, 2}, {TCP_KEEPCNT, 3}}; // seconds, seconds, number
    for (const auto &[option, value] : options)
        setsockopt(socket.native_handle(), IPPROTO_TCP, option, &value, sizeof value);
}

Task<tcp::resolver::results_type> resolve(asio::io_context &io, const Endpoint &endpoint,
                                          Duration deadline) {
    boost::system::error_code error;
    const auto address = asio::ip::make_address(endpoint.host, error);
    if (!error) { // needs nobody to be asked
        const auto port = static_cast<unsigned short>(std::stoul(endpoint.port));
        co_return tcp::resolver::results_type::create(tcp::endpoint(address, port), endpoint.host,
                                                      endpoint.port);
    }
    // Shared: the timer's handler may already be on its way when the answer comes.
    const auto resolver = std::make_shared<tcp::resolver>(io);
    asio::steady_timer timer(io, deadline);
    timer.async_wait([resolver](boost::system::error_code stopped) {
        if (!stopped) resolver->cancel();
    });
    co_return co_await resolver->async_resolve(endpoint.host, endpoint.port, use_awaitable);
}

template <typename Stream> class ConnectionOver final : public Connection {
  public:
    ConnectionOver(asio::io_context &io, const Endpoint &endpoint, Stream stream)
        : io_(io), endpoint_(endpoint), stream_(std::move(stream)) {
        buffer_.reserve(read_bytes);
    }

    Task<void> open(Duration deadline) override {
        try {
            const auto addresses = co_await resolve(io_, endpoint_, deadline);
            if (is_closed_) throw failure_at(endpoint_, "closed");
            socket().expires_after(deadline);
            co_await socket().async_connect(addresses, use_awaitable);
            set_options(socket().socket());
            if constexpr (std::is_same_v<Stream, TlsStream>) co_await shake_hands();
        } catch (const boost::system::system_error &error) {
            throw failure_at(endpoint_, error.code().message());
        }
    }

    Task<std::string> call(std::string_view path, std::string body, Duration deadline) override {
        try {
            socket().expires_after(deadline);
            co_await send(path, std::move(body));
            http::response_parser<http::string_body> parser;
            parser.body_limit(answer_bytes_max);
            co_await http::async_read(stream_, buffer_, parser, use_awaitable);
            socket().expires_never();
            is_kept_ = parser.keep_alive();
            http::response<http::string_body> response = parser.release();
            if (response.result() != http::status::ok)
                throw Refused(endpoint_.text + ": " + decode_error(response.body()));
            co_return std::move(response.body());
        } catch (const boost::system::system_error &error) {
            throw failure_at(endpoint_, error.code().message());
        }
    }

    Task<void> open_stream(std::string_view path, std::string body, Duration deadline) override {
        try {
            socket().expires_after(deadline);
            co_await send(path, std::move(body));
            parser_.body_limit(boost::none);
            co_await http::async_read_header(stream_, buffer_, parser_, use_awaitable);
            socket().expires_never();
            if (parser_.get().result() != http::status::ok)
                throw Refused(endpoint_.text + ": the stream was refused with status " +
                              std::to_string(parser_.get().result_int()));
        } catch (const boost::system::system_error &error) {
            throw failure_at(endpoint_, error.code().message());
        }
    }

    Task<std::string> next_chunk() override {
        parser_.get().body().data = chunk_.data();
        parser_.get().body().size = chunk_.size();
        auto [error, bytes] = co_await http::async_read_some(stream_, buffer_, parser_,
                                                             asio::as_tuple(use_awaitable));
        if (error && error != http::error::need_buffer)
            throw failure_at(endpoint_, error.message());
        const std::size_t got = chunk_.size() - parser_.get().body().size;
        if (got == 0 && parser_.is_done()) throw failure_at(endpoint_, "the stream has ended");
        co_return std::string(chunk_.data(), got);
    }

    bool is_kept() const override { return is_kept_; }

    void close() override {
        is_closed_ = true;
        boost::system::error_code ignored;
        socket().socket().shutdown(tcp::socket::shutdown_both, ignored);
        socket().close();
    }

  private:
    PlainStream &socket() { return beast::get_lowest_layer(stream_); }

    Task<void> send(std::string_view path, std::string body) {
        http::request<http::string_body> request(http::verb::post,
                                                 beast::string_view(path.data(), path.size()), 11);
        request.set(http::field::host, endpoint_.authority);
        request.set(http::field::content_type, "application/json");
        request.body() = std::move(body);
        request.prepare_payload();
        co_await http::async_write(stream_, request, use_awaitable);
    }

    Task<void> shake_hands() {
        boost::system::error_code not_an_address;
        asio::ip::make_address(endpoint_.host, not_an_address);
        if (not_an_address) // names only: servers choose their certificate by them
            SSL_set_tlsext_host_name(stream_.native_handle(), endpoint_.host.c_str());
        stream_.set_verify_callback(asio::ssl::host_name_verification(endpoint_.host));
        co_await stream_.async_handshake(asio::ssl::stream_base::client, use_awaitable);
    }

    asio::io_context &io_;
    Endpoint endpoint_;
    Stream stream_;
    beast::flat_buffer buffer_;
    http::response_parser<http::buffer_body> parser_;
    std::array<char, read_bytes> chunk_;
    bool is_closed_ = false;
    bool is_kept_ = false;
};

} // namespace

Endpoint parse_endpoint(const std::string &text) {
    Endpoint endpoint;
    endpoint.text = text;
    std::string_view rest = text;
    endpoint.is_tls = rest.starts_with("https://");
    if (!endpoint.is_tls && !rest.starts_with("http://"))
        throw Failure("'" + text + "' begins with neither http:// nor https://");
    rest.remove_prefix(endpoint.is_tls ? 8 : 7);
    if (rest.ends_with('/')) rest.remove_suffix(1);
    endpoint.authority = rest;
    const std::size_t colon = rest.rfind(':');
    if (colon == std::string_view::npos || colon == 0) throw Failure("'" + text + "' has no port");
    endpoint.host = rest.substr(0, colon);
    endpoint.port = rest.substr(colon + 1);
    if (endpoint.host.starts_with('[') && endpoint.host.ends_with(']')) // an IPv6 address
        endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    const bool is_number = !endpoint.port.empty() && endpoint.port.size() <= 5 &&
                           endpoint.port.find_first_not_of("0123456789") == std::string::npos;
    if (!is_number || std::stoul(endpoint.port) == 0 || std::stoul(endpoint.port) > 65535)
        throw Failure("'" + text + "' has a bad port");
    return endpoint;
}

std::shared_ptr<asio::ssl::context> make_tls_context(const EtcdConfig &config) {
    auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
    const std::string *file = nullptr; // the one that is being read
    try {
        SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
        context->set_verify_mode(asio::ssl::verify_peer);
        if (config.ca_file.empty())
            context->set_default_verify_paths();
        else
            context->load_verify_file(*(file = &config.ca_file));
        if (!config.cert_file.empty()) {
            context->use_certificate_chain_file(*(file = &config.cert_file));
            context->use_private_key_file(*(file = &config.key_file), asio::ssl::context::pem);
        }
    } catch (const boost::system::system_error &error) {
        throw Failure((file != nullptr ? *file + ": " : std::string()) + error.code().message());
    }
    return context;
}

// ---- client ----

Client::Client(asio::io_context &io, Endpoint endpoint, std::shared_ptr<asio::ssl::context> tls,
               Duration connect_deadline, Duration call_deadline)
    : io_(io), endpoint_(std::move(endpoint)), tls_(std::move(tls)),
      connect_deadline_(connect_deadline), call_deadline_(call_deadline) {}

Client::~Client() = default;

Task<std::shared_ptr<Connection>> Client::connect() {
    if (is_closed_) throw Failure(endpoint_.text + ": closed");
    std::shared_ptr<Connection> connection;
    if (endpoint_.is_tls)
        connection = std::make_shared<ConnectionOver<TlsStream>>(
            io_, endpoint_, TlsStream(beast::tcp_stream(io_), *tls_));
    else
        connection =
            std::make_shared<ConnectionOver<PlainStream>>(io_, endpoint_, PlainStream(io_));
    std::erase_if(open_, [](const auto &weak) { return weak.expired(); });
    open_.push_back(connection);
    co_await connection->open(connect_deadline_);
    co_return connection;
}

Task<std::string> Client::call(std::string_view path, std::string body) {
    if (is_closed_) throw Failure(endpoint_.text + ": closed");
    std::shared_ptr<Connection> connection;
    if (!idle_.empty()) {
        connection = std::move(idle_.back());
        idle_.pop_back();
    } else {
        connection = co_await connect();
    }
    std::string answer = co_await connection->call(path, std::move(body), call_deadline_);
    if (!is_closed_ && connection->is_kept() && idle_.size() < idle_max)
        idle_.push_back(std::move(connection));
    co_return answer;
}

Task<std::shared_ptr<Connection>> Client::stream(std::string_view path, std::string body) {
    std::shared_ptr<Connection> connection = co_await connect();
    co_await connection->open_stream(path, std::move(body), call_deadline_);
    co_return connection;
}

void Client::close() {
    is_closed_ = true;
    idle_.clear();
    for (const auto &weak : open_)
        if (const auto connection = weak.lock()) connection->close();
}

// ---- lines ----

Task<std::string> LineReader::next_line() {
    for (;;) {
        const std::size_t end = buffer_.find('\n', searched_);
        if (end != std::string::npos) {
            std::string line = buffer_.substr(read_, end - read_);
            read_ = searched_ = end + 1;
            co_return line;
        }
        buffer_.erase(0, read_);
        read_ = 0;
        searched_ = buffer_.size();
        if (buffer_.size() > line_bytes_max) throw Failure("an event of the watch is too long");
        buffer_ += co_await stream_->next_chunk();
    }
}

} // namespace ds::relay::etcd
