#include "tests/cluster/store.h"

#include "tests/relay/etcd_fixture.h"

namespace cluster_test {

namespace etcd = ds::relay::etcd;

struct Store::Access {
    boost::asio::io_context io{1};
    std::unique_ptr<relay_test::StoreAccess> store;
};

Store::Store(const std::string &endpoint) : access_(std::make_unique<Access>()) {
    access_->store = std::make_unique<relay_test::StoreAccess>(access_->io, endpoint);
}

Store::~Store() = default;

void Store::compact() {
    access_->store->compact(access_->store->revision());
}

std::chrono::seconds Store::remaining_lease(const std::string &node_address) {
    const auto key = access_->store->get("/ds/v1/test/nodes/" + node_address);
    if (!key) return {};
    const std::string answer =
        access_->store->call("/v3/lease/timetolive", etcd::encode_lease(key->lease));
    return std::chrono::seconds(std::max<std::int64_t>(etcd::decode_lease(answer).ttl_s, 0));
}

} // namespace cluster_test
