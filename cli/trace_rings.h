// The ring files of one directory, read as one stream.
//
// A stream is ordered by time over all channels. While it is followed, a record that is newer than
// the moment at which a reading began waits for the next reading: a channel that was read earlier
// in this one may have got an older record since.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "cli/trace_line.h"
#include "platform_default/ring_reader.h"

namespace ds::cli {

class TraceRings {
  public:
    // What the stream is made of; each callback may be left out.
    struct Sink {
        std::function<void(const TraceLine &)> line;
        // So many records of the channel were overwritten before they could be read.
        std::function<void(const std::string &channel, std::uint64_t count)> lost;
        // The daemon was started anew; what follows is of the new one.
        std::function<void(std::uint32_t pid, std::uint32_t pid_before)> restarted;
        // A file cannot be read, or not to its end. Said once about each file.
        std::function<void(const std::string &sentence)> refused;
    };

    // suffix: of the file names, ".ring" or ".ring.old".
    TraceRings(std::string directory, std::string suffix, Sink sink)
        : directory_(std::move(directory)), suffix_(std::move(suffix)), sink_(std::move(sink)) {}

    // Opens what is there. An exit code: ok also when every file was refused; when there is none,
    // that is said.
    int open();
    // The records that are there. What was overwritten before the first reading is history and not
    // counted as lost.
    void read_all();
    // What has come since. Follows the daemon into its next run, as far as that has made its files.
    void read_new();
    // The records that read_new() still holds back.
    void flush();

  private:
    struct Ring {
        std::string path;
        std::unique_ptr<ring::Reader> reader;
        std::uint64_t position = 0;
        unsigned run = 0; // of the daemon: 0, 1, 2 ... since the stream was opened
        bool is_spoilt = false;
    };

    std::vector<std::string> find_files(std::error_code &error) const;
    bool open_file(const std::string &path, unsigned run);
    void read(Ring &ring, bool counts_lost);
    void add_lines(const Ring &ring, std::vector<ring::Record> records);
    void open_new_files();
    void announce(const Ring &before, const Ring &now);
    void emit(std::size_t count);
    void refuse(const std::string &path, const std::string &sentence);
    std::uint64_t wall_offset(const ring::Header &header);

    std::string directory_;
    std::string suffix_;
    Sink sink_;
    std::vector<Ring> rings_;
    std::vector<TraceLine> pending_;               // sorted by emit()
    std::map<std::string, std::uint64_t> refused_; // the inode of each file that was complained of
    std::map<std::uint32_t, std::uint64_t> offsets_; // wall clock minus stamp, by pid
    unsigned run_ = 0;
};

} // namespace ds::cli
