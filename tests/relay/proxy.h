// A TCP proxy on the loopback that can be cut, and that can let new connections wait.
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
    // Ends all connections and refuses new ones until heal().
    void cut();
    void heal();

  private:
    struct Link;

    void accept();
    static void begin(const std::shared_ptr<Link> &link);
    static void carry(const std::shared_ptr<Link> &link, bool is_upwards);

    boost::asio::ip::tcp::endpoint upstream_;
    boost::asio::ip::tcp::acceptor acceptor_;
    std::vector<std::weak_ptr<Link>> links_;
    std::vector<std::shared_ptr<Link>> held_;
    std::size_t free_ = SIZE_MAX; // connections until new ones are held
    bool is_cut_ = false;
};

} // namespace relay_test
