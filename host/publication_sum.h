// What was published on this node, as one number that outlives the daemon.
//
// Each publication adds a hash of its name, instance and scope, each withdrawal takes it away. The
// number lies in a mapped file of the runtime directory, so it is there however the daemon ended.
// The next daemon knows from it whether anything was published, and, once its own number is the
// same, that all of it is back. A daemon that dies while it still waits leaves the number it waited
// for; what was published meanwhile may be in it or not, so the next one cannot tell from its own
// number that all is back.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace ds::host {

class PublicationSum {
  public:
    // What outlives the daemon. All zero: nothing was published.
    struct Record {
        char magic[8];
        char boot_id[40]; // of the machine's boot, as the kernel writes it
        std::uint64_t sum;
        std::uint64_t is_inexact; // 1: there were publications while the sum was not settled
    };
    using RecordOwner = std::unique_ptr<Record, void (*)(Record *)>;

    // Without a record: nothing was published before, and nothing outlives the process.
    PublicationSum() = default;
    explicit PublicationSum(RecordOwner record);
    // In a file (publication_file.cpp). A missing or foreign file, or one from before the machine's
    // last boot, counts as empty. Throws StartError when the file cannot be made.
    explicit PublicationSum(const std::string &path);
    PublicationSum(const PublicationSum &) = delete;
    PublicationSum &operator=(const PublicationSum &) = delete;

    void add(std::string_view name, std::string_view instance, std::uint32_t scope);
    void remove(std::string_view name, std::string_view instance, std::uint32_t scope);

    // Whether the daemon before this one had publications.
    bool had_publications() const { return expected_ != 0 || !is_exact_; }
    // Whether exactly those are published now that were published then; never when that is not
    // known.
    bool is_restored() const { return is_exact_ && sum_ == expected_; }
    // Publications there are now.
    std::uint64_t count() const { return count_; }
    // From here on the file follows; until then it keeps the former number.
    void settle();

  private:
    void change(std::uint64_t by);

    std::uint64_t sum_ = 0;
    std::uint64_t count_ = 0;
    std::uint64_t expected_ = 0;
    bool is_exact_ = true; // nothing but what was expected had been published
    RecordOwner record_{nullptr, [](Record *) {}};
    bool is_settled_ = false;
};

} // namespace ds::host
