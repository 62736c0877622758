// A TCP proxy on the loopback that can be cut, that can let new connections wait, and that can be
// slow.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace relay_test {

class Proxy {
  public:
    Proxy(boost::asio::io_context &io, std::uint16_t upstream_port);
    ~Proxy();
    Proxy(const Proxy &) = delete;
    Proxy &operator=(const Proxy &) = delete;

    std::string endpoint() const;
    // Connections beyond the next `count` are accepted, but nothing is carried until release().
    void hold_after(std::size_t count);
    void release();
    // Carries no more than that of what the server says on each connection; 0: as much as it can.
    void carry_down(std::size_t bytes_per_s) { *bytes_per_s_ = bytes_per_s; }
    // Ends all connections and refuses new ones until heal().
    void cut();
    void heal();

  private:
    struct Link;

    void accept();
    static void begin(const std::shared_ptr<Link> &link);
    static void carry(const std::shared_ptr<Link> &link, bool is_upwards);
    static void carry_later(const std::shared_ptr<Link> &link, std::size_t written);

    boost::asio::ip::tcp::endpoint upstream_;
    boost::asio::ip::tcp::acceptor acceptor_;
    std::vector<std::weak_ptr<Link>> links_;
    std::vector<std::shared_ptr<Link>> held_;
    std::size_t free_ = SIZE_MAX; // connections until new ones are held
    bool is_cut_ = false;
    std::shared_ptr<std::size_t> bytes_per_s_ = std::make_shared<std::size_t>(0);
};

} // namespace relay_test
