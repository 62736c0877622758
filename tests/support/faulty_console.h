// A console that runs the host's code in the middle of a library call, once.
//
// Every other callback belongs to an operation; the console is written to wherever there is a log
// point. So it shows what a host can do to the library between two steps of one operation.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <utility>

class FaultyConsole {
  public:
    // Runs the code at the nth write; one line takes several.
    FaultyConsole(uint32_t nth, std::function<void()> code) : nth_(nth), code_(std::move(code)) {
        cookie_io_functions_t functions{};
        functions.write = write;
        stream_ = fopencookie(this, "w", functions);
        setvbuf(stream_, nullptr, _IONBF, 0);
    }
    ~FaultyConsole() { fclose(stream_); }
    FaultyConsole(const FaultyConsole &) = delete;
    FaultyConsole &operator=(const FaultyConsole &) = delete;

    uint64_t slot() const { return reinterpret_cast<uint64_t>(stream_); }
    bool has_run() const { return writes_ >= nth_; }

  private:
    static ssize_t write(void *cookie, const char *, size_t size) {
        auto *self = static_cast<FaultyConsole *>(cookie);
        if (++self->writes_ == self->nth_) self->code_();
        return static_cast<ssize_t>(size);
    }

    uint32_t nth_;
    uint32_t writes_ = 0;
    std::function<void()> code_;
    FILE *stream_;
};
