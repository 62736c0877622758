#include "floods.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include "link.h"

namespace ds::bench {

namespace {

constexpr std::size_t flooding_sessions = 200;
constexpr std::size_t names_per_session = 100;
constexpr std::size_t outstanding_per_session = 64;
constexpr std::size_t watching_sessions = 500;
constexpr int unread_instances = 20; // in each answer that nobody reads

// The request of that number in a session, whose names begin with the prefix.
using Fill = void (*)(v1::Request &request, const std::string &prefix, std::uint32_t number);

// Many sessions with as many unanswered requests each as they may have.
void flood_requests(const std::string &socket, const Begun &begun, Fill fill) {
    std::vector<Link> links;
    std::vector<pollfd> items;
    std::vector<std::uint32_t> counts(flooding_sessions);
    v1::Request request = publish_request();
    const auto send = [&](std::size_t session, std::size_t requests) {
        const std::string prefix = "flood/" + std::to_string(session) + "/";
        for (std::size_t i = 0; i < requests; i++) {
            fill(request, prefix, counts[session]++);
            links[session].put(request);
        }
        links[session].flush();
    };
    for (std::size_t i = 0; i < flooding_sessions; i++) {
        links.emplace_back(socket);
        items.push_back({links.back().fd(), POLLIN, 0});
    }
    for (std::size_t i = 0; i < links.size(); i++)
        send(i, outstanding_per_session);
    begun();
    for (;;) {
        poll(items.data(), items.size(), -1);
        for (std::size_t i = 0; i < links.size(); i++) {
            if (items[i].revents == 0) continue;
            std::size_t replies = 0;
            links[i].take(false, [&replies](const v1::Event &event) {
                replies += event.has_reply() ? 1 : 0;
            });
            send(i, replies);
        }
    }
}

void flood_publications(const std::string &socket, const Begun &begun) {
    const Fill fill = [](v1::Request &request, const std::string &prefix, std::uint32_t number) {
        request.mutable_publish()->set_name(prefix + std::to_string(number % names_per_session));
    };
    flood_requests(socket, begun, fill);
}

// Every registration is taken back by the next request, else the limit would end the flood.
void flood_registrations(const std::string &socket, const Begun &begun) {
    const Fill fill = [](v1::Request &request, const std::string &prefix, std::uint32_t number) {
        const std::string name = prefix + std::to_string(number / 2 % names_per_session);
        if (number % 2 == 0) {
            request.mutable_register_()->set_name(name);
        } else {
            request.mutable_unregister()->set_name(name);
            request.mutable_unregister()->set_handle(number / 2 + 1);
        }
    };
    flood_requests(socket, begun, fill);
}

// Sessions that publish much and leave.
void flood_departures(const std::string &socket, const Begun &begun) {
    constexpr std::size_t publications = 1'000;
    v1::Request request = publish_request();
    for (bool is_first = true;; is_first = false) {
        Link link(socket);
        for (std::size_t i = 0; i < publications; i++) {
            request.mutable_publish()->set_name("flood/departing/" + std::to_string(i));
            link.put(request);
        }
        link.flush();
        link.await_replies(publications);
        if (is_first) begun();
    }
}

// Sessions that come and go as fast as the daemon takes them.
void flood_sessions(const std::string &socket, const Begun &begun) {
    { const Link first(socket); }
    begun();
    for (;;)
        const Link link(socket);
}

// Every change of one name is told to many sessions of the same user.
void flood_notifications(const std::string &socket, const Begun &begun) {
    std::vector<Link> watchers;
    std::vector<pollfd> items;
    v1::Request watch;
    watch.mutable_register_()->set_name("flood/fan-out");
    for (std::size_t i = 0; i < watching_sessions; i++) {
        watchers.emplace_back(socket);
        watchers.back().put(watch);
        watchers.back().flush();
        watchers.back().await_replies(1);
        items.push_back({watchers.back().fd(), POLLIN, 0});
    }
    Link publisher(socket);
    items.push_back({publisher.fd(), POLLIN, 0});
    v1::Request change = publish_request();
    change.mutable_publish()->set_name("flood/fan-out");
    std::size_t outstanding = 0;
    begun();
    for (;;) {
        for (; outstanding < outstanding_per_session; outstanding++)
            publisher.put(change);
        publisher.flush();
        poll(items.data(), items.size(), -1);
        for (std::size_t i = 0; i < watchers.size(); i++)
            if (items[i].revents != 0) watchers[i].take(false, [](const v1::Event &) {});
        if (items.back().revents != 0)
            outstanding -= publisher.take(false, [](const v1::Event &) {});
    }
}

// Asks without end for large answers and takes them only bit by bit.
class SlowAsker {
  public:
    SlowAsker(const std::string &socket, const std::string &requests)
        : link_(socket), requests_(requests) {}

    int fd() const { return link_.fd(); }
    void ask() {
        const ssize_t sent = send(fd(), requests_.data() + sent_, requests_.size() - sent_,
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EAGAIN)
            throw std::system_error(errno, std::generic_category(), "send");
        if (sent > 0) sent_ = (sent_ + static_cast<std::size_t>(sent)) % requests_.size();
    }
    void take_a_bit() {
        char bytes[16'384];
        if (recv(fd(), bytes, sizeof bytes, MSG_DONTWAIT) == 0)
            throw std::runtime_error("the server ended the session");
    }

  private:
    Link link_;
    const std::string &requests_;
    std::size_t sent_ = 0; // of requests_, which follow one another for ever
};

void flood_unread(const std::string &socket, const Begun &begun) {
    Link publisher(socket);
    v1::Request publish = publish_request();
    publish.mutable_publish()->set_name("flood/unread");
    for (int i = 0; i < unread_instances; i++) {
        publish.mutable_publish()->set_instance(std::to_string(i));
        publisher.put(publish);
        publisher.flush();
        publisher.await_replies(1);
    }
    v1::Request list;
    list.set_seq(1);
    list.mutable_list()->set_name("flood/unread");
    std::string requests;
    for (std::size_t i = 0; i < outstanding_per_session; i++)
        proto::append_frame(requests, list);
    std::vector<SlowAsker> askers;
    for (std::size_t i = 0; i < flooding_sessions; i++)
        askers.emplace_back(socket, requests);
    begun();
    for (;;)
        for (SlowAsker &asker : askers) {
            asker.ask();
            asker.take_a_bit();
        }
}

// Dumps a directory of 100,000 services, page by page, again and again.
void flood_dumps(const std::string &socket, const Begun &begun) {
    constexpr int services = 100'000;
    constexpr int portion = 1'000;
    Link link(socket);
    v1::Request publish = publish_request();
    for (int i = 0; i < services; i += portion) {
        for (int j = i; j < i + portion; j++) {
            publish.mutable_publish()->set_name("flood/dumped/" + std::to_string(j));
            link.put(publish);
        }
        link.flush();
        link.await_replies(portion);
    }
    v1::Request dump;
    dump.mutable_dump()->set_kind(v1::DUMP_KIND_SERVICES);
    begun();
    for (;;) {
        link.put(dump);
        link.flush();
        link.take(true, [&dump](const v1::Event &event) {
            dump.mutable_dump()->set_after(event.reply().dump().next());
        });
    }
}

constexpr Flood all[] = {
    {"publications", flood_publications},
    {"registrations", flood_registrations},
    {"departures", flood_departures},
    {"sessions", flood_sessions},
    {"notifications", flood_notifications},
    {"unread", flood_unread},
    {"dumps", flood_dumps},
};

} // namespace

std::span<const Flood> floods() {
    return all;
}

} // namespace ds::bench
