#include "host/publication_sum.h"

#include <utility>

#include "ds_server_lib.h"

namespace ds::host {

namespace {

// The hash of a whole identity; the bytes between the texts can be in neither.
std::uint64_t hash_of(std::string_view name, std::string_view instance, std::uint32_t scope) {
    std::string identity(name);
    identity += '\0';
    identity += instance;
    identity += '\0';
    identity += static_cast<char>('0' + scope);
    // The low bits of djb2 are alike for texts that are; multiplying spreads them before they are
    // added up.
    constexpr std::uint64_t spread = 0x9e3779b97f4a7c15;
    const std::uint64_t hash = ds_hash_string(identity.data(), identity.size()) * spread;
    return hash ^ hash >> 32;
}

} // namespace

PublicationSum::PublicationSum(RecordOwner record) : record_(std::move(record)) {
    expected_ = record_->sum;
    is_exact_ = record_->is_inexact == 0;
}

void PublicationSum::add(std::string_view name, std::string_view instance, std::uint32_t scope) {
    if (!is_settled_ && record_ != nullptr) record_->is_inexact = 1;
    count_++;
    change(hash_of(name, instance, scope));
}

void PublicationSum::remove(std::string_view name, std::string_view instance, std::uint32_t scope) {
    count_--;
    change(-hash_of(name, instance, scope));
}

void PublicationSum::change(std::uint64_t by) {
    sum_ += by;
    if (is_settled_ && record_ != nullptr) record_->sum = sum_;
}

void PublicationSum::settle() {
    is_settled_ = true;
    if (record_ == nullptr) return;
    record_->sum = sum_;
    record_->is_inexact = 0;
}

} // namespace ds::host
