// Trace channels: every record is decoded by its signature and kept.
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>

#include "recording.h"

namespace recording {
namespace {

struct Channel {
    std::string name;
};

std::vector<std::unique_ptr<Channel>> channels;
std::vector<OpenedChannel> opened;
std::vector<Trace> records;
std::vector<Trace> all_records;
uint64_t fired_count[trace_point_count];

std::string channel_name(rtrace_handle_t handle) {
    for (const auto &channel : channels)
        if (channel.get() == handle) return channel->name;
    misuse("rtrace_internal on a handle that is no open channel");
    return "?";
}

// One argument as the conversion of the format prints it. A signature letter that does not fit its
// conversion is a misuse: the reader of a trace buffer would decode garbage.
class Formatter {
  public:
    Formatter(const char *format, const char *signature) : format_(format), letter_(signature) {}

    std::string run(va_list &arguments) {
        for (at_ = format_; *at_ != '\0'; ++at_) {
            if (*at_ != '%')
                text_ += *at_;
            else
                convert(arguments);
        }
        if (*letter_ != '\0') misuse(std::string("signature longer than format: ") + format_);
        return text_;
    }

  private:
    void convert(va_list &arguments) {
        ++at_;
        const bool is_long = *at_ == 'l';
        if (is_long) ++at_;
        const char expected = *at_ == 's' ? 's' : (is_long || *at_ == 'p') ? 'D' : 'd';
        if (*letter_ != expected) {
            misuse(std::string("signature does not fit format: ") + format_);
            return;
        }
        ++letter_;
        append(arguments, expected);
    }

    void append(va_list &arguments, char letter) {
        if (letter == 's') {
            const char *string = va_arg(arguments, const char *);
            if (string == nullptr) misuse(std::string("null string for: ") + format_);
            text_ += string == nullptr ? "(null)" : string;
        } else if (letter == 'd') {
            append_number(va_arg(arguments, int));
        } else {
            append_number(va_arg(arguments, int64_t));
        }
    }

    void append_number(int value) {
        char digits[24];
        if (*at_ == 'x')
            snprintf(digits, sizeof digits, "%x", static_cast<unsigned>(value));
        else if (*at_ == 'u')
            snprintf(digits, sizeof digits, "%u", static_cast<unsigned>(value));
        else
            snprintf(digits, sizeof digits, "%d", value);
        text_ += digits;
    }

    void append_number(int64_t value) {
        char digits[24];
        if (*at_ == 'p')
            snprintf(digits, sizeof digits, "%p", reinterpret_cast<void *>(value));
        else if (*at_ == 'u')
            snprintf(digits, sizeof digits, "%" PRIu64, static_cast<uint64_t>(value));
        else
            snprintf(digits, sizeof digits, "%" PRId64, value);
        text_ += digits;
    }

    const char *format_;
    const char *letter_;
    const char *at_ = nullptr;
    std::string text_;
};

} // namespace

const std::vector<Trace> &traces() {
    return records;
}

const std::vector<Trace> &all_traces() {
    return all_records;
}

std::vector<Trace> traces_of(uint32_t id) {
    std::vector<Trace> result;
    for (const Trace &trace : records)
        if (trace.id == id) result.push_back(trace);
    return result;
}

std::vector<uint32_t> trace_ids() {
    std::vector<uint32_t> result;
    for (const Trace &trace : records)
        result.push_back(trace.id);
    return result;
}

rtrace_handle_t open_channel(const std::string &channel) {
    channels.push_back(std::make_unique<Channel>(Channel{channel}));
    return channels.back().get();
}

uint64_t fired(uint32_t id) {
    return id < trace_point_count ? fired_count[id] : 0;
}

std::string fired_summary() {
    uint32_t count = 0;
    std::string missing;
    for (uint32_t id = 0; id < trace_point_count; ++id) {
        if (fired_count[id] != 0)
            ++count;
        else
            missing += " " + std::to_string(id);
    }
    return "fired " + std::to_string(count) + "/" + std::to_string(trace_point_count) +
           (missing.empty() ? "" : ", not fired:" + missing);
}

const std::vector<OpenedChannel> &opened_channels() {
    return opened;
}

void clear_traces() {
    records.clear();
}

void reset_traces() {
    records.clear();
    all_records.clear();
    opened.clear();
    channels.clear();
}

} // namespace recording

using namespace recording;

extern "C" int rtrace_open_internal(rtrace_handle_t *handle_out, const char *channel,
                                    uint32_t buffer_size, uint32_t point_count,
                                    const char *source_path, const char *format_id,
                                    uint64_t option) {
    note("rtrace_open_internal(" + std::string(channel) + ", " + std::to_string(buffer_size) +
         ", " + std::to_string(point_count) + ", " + source_path + ", " + format_id + ", " +
         std::to_string(option) + ")");
    opened.push_back({channel, buffer_size, point_count, source_path, format_id, option});
    // The handle is written on failure, too: the caller has to treat it as null all the same.
    *handle_out = open_channel(channel);
    const Failure failure = should_fail("rtrace_open_internal");
    return failure.fails ? failure.result : 0;
}

extern "C" void rtrace_internal(rtrace_handle_t handle, uint32_t id, uint32_t record_size,
                                uint32_t has_strings, const char *signature, const char *format,
                                ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = Formatter(format, signature).run(arguments);
    va_end(arguments);
    const std::string channel = channel_name(handle);
    note("rtrace_internal(" + channel + ", " + std::to_string(id) + ")");
    if (id < trace_point_count) ++fired_count[id];
    records.push_back({channel, id, record_size, has_strings, signature, format, std::move(text)});
    all_records.push_back(records.back());
}
