#include "cli/trace_rings.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <sys/stat.h>

namespace ds::cli {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t one_clock_ns = 1'000'000'000;

std::uint64_t stamp_now_ns() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t inode_of(const std::string &path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

} // namespace

// ---- files ----

std::vector<std::string> TraceRings::find_files(std::error_code &error) const {
    std::vector<std::string> paths;
    for (auto at = fs::directory_iterator(directory_, error);
         !error && at != fs::directory_iterator(); at.increment(error)) {
        if (at->path().native().ends_with(suffix_)) paths.push_back(at->path());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

int TraceRings::open() {
    std::error_code error;
    const std::vector<std::string> paths = find_files(error);
    if (error) {
        complain("cannot read " + directory_ + ": " + error.message());
        return error == std::errc::permission_denied ? exit_denied : exit_not_found;
    }
    if (paths.empty()) {
        complain("no files *" + suffix_ + " in " + directory_);
        return exit_not_found;
    }
    for (const std::string &path : paths)
        open_file(path, run_);
    return exit_ok;
}

bool TraceRings::open_file(const std::string &path, unsigned run) {
    std::string error;
    auto reader = ring::Reader::open(path, error);
    if (reader == nullptr) {
        refuse(path, "cannot read a trace file: " + error);
        return false;
    }
    const std::string &format_id = reader->header().format_id;
    if (format_id != ds_log::format_id.data()) {
        refuse(path, "cannot read a trace file: " + path + " has the log points of table " +
                         format_id + ", this dsctl knows " + ds_log::format_id.data());
        return false;
    }
    rings_.push_back({path, std::move(reader), 0, run, false});
    return true;
}

void TraceRings::refuse(const std::string &path, const std::string &sentence) {
    const std::uint64_t inode = inode_of(path);
    const auto [known, is_new] = refused_.try_emplace(path, inode);
    if (!is_new && known->second == inode) return;
    known->second = inode;
    if (sink_.refused) sink_.refused(sentence);
}

// ---- records ----

// All channels of one run share one clock, so that their order is that of the stamps: each file
// pairs the two clocks at a moment of its own, a little differently.
std::uint64_t TraceRings::wall_offset(const ring::Header &header) {
    const std::uint64_t own = header.wall_ns - header.stamp_ns;
    const auto [known, is_new] = offsets_.try_emplace(header.pid, own);
    const auto difference = static_cast<std::int64_t>(own - known->second);
    // The pid may be that of another run.
    if (difference > one_clock_ns || difference < -one_clock_ns) known->second = own;
    return known->second;
}

void TraceRings::add_lines(const Ring &ring, std::vector<ring::Record> records) {
    const ring::Header &header = ring.reader->header();
    const std::uint64_t offset = wall_offset(header);
    pending_.reserve(pending_.size() + records.size());
    for (ring::Record &record : records)
        pending_.push_back(
            {record.stamp_ns + offset, header.channel, header.pid, std::move(record)});
}

void TraceRings::read(Ring &ring, bool counts_lost) {
    if (ring.is_spoilt) return;
    std::uint64_t lost = 0;
    add_lines(ring, ring.reader->read(ring.position, lost));
    if (counts_lost && lost > 0 && sink_.lost) sink_.lost(ring.reader->header().channel, lost);
    if (ring.reader->flaw().empty()) return;
    ring.is_spoilt = true;
    refuse(ring.path, ring.path + ' ' + ring.reader->flaw());
}

// The first `count` of the pending lines, in the order of their time.
void TraceRings::emit(std::size_t count) {
    const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(count);
    // Stable: records of one channel with equal stamps stay in the order they were written in.
    std::stable_sort(pending_.begin(), end,
                     [](const TraceLine &a, const TraceLine &b) { return a.wall_ns < b.wall_ns; });
    if (sink_.line) std::for_each(pending_.begin(), end, sink_.line);
    pending_.erase(pending_.begin(), end);
}

void TraceRings::flush() {
    emit(pending_.size());
}

void TraceRings::read_all() {
    for (Ring &ring : rings_)
        read(ring, false);
    flush();
}

// ---- following ----

void TraceRings::announce(const Ring &before, const Ring &now) {
    if (now.run <= run_) return;
    run_ = now.run;
    flush(); // the end of the run before
    if (sink_.restarted) sink_.restarted(now.reader->header().pid, before.reader->header().pid);
}

// A file that another one has replaced is read to its end before it is left: its daemon has ended.
void TraceRings::open_new_files() {
    std::error_code ignored; // between two runs even the directory may be gone
    for (const std::string &path : find_files(ignored)) {
        const auto known = std::find_if(rings_.begin(), rings_.end(),
                                        [&path](const Ring &ring) { return ring.path == path; });
        if (known == rings_.end()) {
            open_file(path, run_);
            continue;
        }
        if (known->reader->is_still_at(path)) continue;
        read(*known, true);
        Ring before = std::move(*known);
        rings_.erase(known);
        if (open_file(path, before.run + 1)) announce(before, rings_.back());
    }
}

void TraceRings::read_new() {
    const std::uint64_t began_ns = stamp_now_ns();
    const std::size_t held_back = pending_.size();
    for (Ring &ring : rings_)
        read(ring, true);
    const auto is_settled = [began_ns](const TraceLine &line) {
        return line.record.stamp_ns < began_ns;
    };
    // What was held back once goes out now, whatever its stamp says.
    const auto newer = std::stable_partition(
        pending_.begin() + static_cast<std::ptrdiff_t>(held_back), pending_.end(), is_settled);
    emit(static_cast<std::size_t>(newer - pending_.begin()));
    open_new_files();
}

} // namespace ds::cli
