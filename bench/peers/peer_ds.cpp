// This project's own daemon, through its client layer. Publish = one request; the value stands in the endpoint, as
// a path of 201 bytes with local scope: the endpoint is the content that a publication can change without becoming
// another publication. Look-up = list of one name. A watcher registers for every slot.
#include "bench.h"
#include "client/connection.h"

#include <algorithm>
#include <sys/epoll.h>

using ds::client::Connection;
using ds::client::Outcome;
using ds::client::no_deadline;

static void ok(const Outcome& outcome, const char* what) {
  if (!outcome.ok()) die(std::string("ds ") + what + ": " + outcome.text);
}
static void open_conn(Connection& c, const Opt& o) { ok(c.connect(o.addr, "bench", no_deadline), "connect"); }
static std::string slot_name(int k) { return "slot." + std::to_string(k); }

struct DsPeer : Peer {
  Connection c;
  ds::v1::Request publish, list;
  ds::v1::Event event;
  int outstanding = 0;

  DsPeer() { publish.mutable_publish()->set_scope(ds::v1::SCOPE_LOCAL); }
  void connect(const Opt& o) override { open_conn(c, o); }
  void append(const std::string& n, const char* v) {
    publish.mutable_publish()->set_name(n);
    std::string& path = *publish.mutable_publish()->mutable_endpoint()->mutable_path();
    path.assign(1, '/').append(v, kValueLen);
    if (c.send(publish) == 0) die("ds send");
    outstanding++;
  }
  void take(const ds::v1::Event& e) {
    if (!e.has_reply()) return;
    if (e.reply().status() != ds::v1::STATUS_OK) die("ds publish: " + e.reply().text());
    outstanding--;
  }
  void put(const std::string& n, const char* v) override { append(n, v); pump(0); }
  void put_async(const std::string& n, const char* v) override { append(n, v); }
  // Everything that has arrived is taken before the next write, so that requests leave in batches, too.
  void pump(int max) override {
    while (outstanding > max) {
      ok(c.receive(event, no_deadline), "receive");
      take(event);
      while (outstanding > 0 && c.receive(event, {}).ok()) take(event);
    }
  }
  bool get(const std::string& n) override {
    ds::v1::Reply reply;
    list.mutable_list()->set_name(n);
    ok(c.call(list, reply, no_deadline), "list");
    return reply.list().names_size() == 1 && reply.list().names(0).instances_size() == 1 &&
           reply.list().names(0).instances(0).endpoint().path().size() == kValueLen + 1;
  }
  // slots_create: nothing to do. A registration does not need the name to exist.
  void slot_put(int k, const char* v) override { put(slot_name(k), v); }
  void slot_put_async(int k, const char* v) override {
    append(slot_name(k), v);
    if (outstanding >= 256) pump(128);
  }
  void flush() override {
    ok(c.flush(no_deadline), "flush");
    if (outstanding >= 128) pump(64);
  }

  struct W {
    Connection c;
    WatchConn w;
  };
  static void told(W& w, Shm* s, const ds::v1::Event& e) {
    if (!e.has_notification()) return;
    uint64_t seq = 0;
    for (const auto& i : e.notification().snapshot().instances()) {
      const std::string& path = i.endpoint().path();
      if (path.size() == kValueLen + 1) seq = std::max(seq, value_seq(path.data() + 1, kValueLen));
    }
    w.w.deliver(s, seq);
  }
  static void watch(W& w, const Opt& o, int slots) {
    ds::v1::Request r;
    ds::v1::Event e;
    open_conn(w.c, o);
    for (int k = 0; k < slots; k++) {
      r.mutable_register_()->set_name(slot_name(k));
      if (w.c.send(r) == 0) die("ds send");
    }
    // one reply and one first notification, which says that there is nothing yet, for each
    for (int left = 2 * slots; left > 0; left--) ok(w.c.receive(e, no_deadline), "register");
  }
  void watchers(const Opt& o, Shm* s, int conns) override {
    int ep = epoll_create1(0);
    std::vector<W> ws(conns);
    for (auto& w : ws) {
      watch(w, o, o.slots);
      epoll_event e{};
      e.events = EPOLLIN;
      e.data.ptr = &w;
      epoll_ctl(ep, EPOLL_CTL_ADD, w.c.fd(), &e);
      mark_ready(s);
    }
    epoll_event ev[256];
    ds::v1::Event e;
    for (;;) {
      int n = epoll_wait(ep, ev, 256, -1);
      for (int i = 0; i < n; i++) {
        W& w = *(W*)ev[i].data.ptr;
        Outcome r;
        while ((r = w.c.receive(e, {})).ok()) told(w, s, e);
        if (r.failure != ds::client::Failure::timeout) die("ds watcher: " + r.text);
      }
    }
  }
  void death_register(const Opt& o, Shm* s) override {
    char v[kValueLen];
    make_value(v, 1);
    connect(o);
    put("dying", v);
    mark_ready(s);
    for (;;) pause();
  }
  void death_watch(const Opt& o, Shm* s) override {
    ds::v1::Request r;
    connect(o);
    r.mutable_register_()->set_name("dying");
    if (c.send(r) == 0) die("ds send");
    for (bool seen = false;;) {
      ok(c.receive(event, no_deadline), "watch");
      if (!event.has_notification()) continue;
      bool live = event.notification().snapshot().instances_size() > 0;
      if (live && !seen) seen = true, mark_ready(s);
      if (!live && seen) mark_gone(s);
    }
  }
};
Peer* make_peer() { return new DsPeer; }
