#include "tests/relay/proxy.h"

#include <array>
#include <chrono>
#include <utility>

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

namespace relay_test {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

struct Proxy::Link {
    explicit Link(tcp::socket accepted, const tcp::endpoint &to,
                  std::shared_ptr<const std::size_t> rate)
        : client(std::move(accepted)), server(client.get_executor()), pause(client.get_executor()),
          upstream(to), bytes_per_s(std::move(rate)) {}
    void close() {
        pause.cancel();
        error_code ignored;
        client.close(ignored);
        server.close(ignored);
    }
    tcp::socket client, server;
    asio::steady_timer pause; // between what the server said and the next read of it
    tcp::endpoint upstream;
    std::shared_ptr<const std::size_t> bytes_per_s;
    std::array<std::array<char, 16384>, 2> buffers;
};

Proxy::Proxy(asio::io_context &io, std::uint16_t upstream_port)
    : upstream_(asio::ip::address_v4::loopback(), upstream_port),
      acceptor_(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0)) {
    accept();
}

Proxy::~Proxy() {
    cut();
    error_code ignored;
    acceptor_.close(ignored);
}

std::string Proxy::endpoint() const {
    return "http://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port());
}

void Proxy::hold_after(std::size_t count) {
    free_ = count;
}

void Proxy::release() {
    free_ = SIZE_MAX;
    for (const auto &link : std::exchange(held_, {}))
        begin(link);
}

void Proxy::cut() {
    is_cut_ = true;
    held_.clear();
    for (const auto &weak : std::exchange(links_, {}))
        if (const auto link = weak.lock()) link->close();
}

void Proxy::heal() {
    is_cut_ = false;
}

void Proxy::accept() {
    acceptor_.async_accept([this](error_code error, tcp::socket socket) {
        if (error) return;
        if (!is_cut_) {
            const auto link = std::make_shared<Link>(std::move(socket), upstream_, bytes_per_s_);
            links_.push_back(link);
            if (free_ == 0) {
                held_.push_back(link);
            } else {
                free_ -= free_ == SIZE_MAX ? 0 : 1;
                begin(link);
            }
        }
        accept();
    });
}

void Proxy::begin(const std::shared_ptr<Link> &link) {
    link->server.async_connect(link->upstream, [link](error_code error) {
        if (error) return link->close();
        carry(link, true);
        carry(link, false);
    });
}

void Proxy::carry(const std::shared_ptr<Link> &link, bool is_upwards) {
    tcp::socket &from = is_upwards ? link->client : link->server;
    auto &buffer = link->buffers[is_upwards ? 0 : 1];
    from.async_read_some(
        asio::buffer(buffer), [link, is_upwards, &buffer](error_code error, std::size_t bytes) {
            if (error) return link->close();
            tcp::socket &to = is_upwards ? link->server : link->client;
            asio::async_write(to, asio::buffer(buffer, bytes),
                              [link, is_upwards](error_code failed, std::size_t written) {
                                  if (failed) return link->close();
                                  if (is_upwards || *link->bytes_per_s == 0)
                                      carry(link, is_upwards);
                                  else
                                      carry_later(link, written);
                              });
        });
}

void Proxy::carry_later(const std::shared_ptr<Link> &link, std::size_t written) {
    link->pause.expires_after(std::chrono::microseconds(written * 1'000'000 / *link->bytes_per_s));
    link->pause.async_wait([link](error_code stopped) {
        if (!stopped) carry(link, false);
    });
}

} // namespace relay_test
