/*
 * The log point: DS_TRACE(TAG, arguments...).
 *
 * A log point writes twice, each write guarded on its own: a trace record to a ring-buffer channel
 * when that channel is open, then a text line to the console stream when the host has set one. It
 * is a macro on purpose: arguments are evaluated once per active sink, so 0, 1 or 2 times, and the
 * console line shows the name of the enclosing function. Arguments must therefore be free of side
 * effects. A helper that logs on behalf of the operation it serves names that operation
 * (DS_TRACE_IN).
 *
 *   DS_TRACE(DS_PUBLISH_SERVICE, ...)               to the channel that the table gives the point
 *   DS_TRACE_ON(handle, DS_SERVICE_INFO, ...)       to the channel of the caller's choice
 *   DS_TRACE_IN("ds_db_init", DS_DB_INIT_MUTEX, ...) as the first, for another function's name
 *
 * Everything about a point but its arguments comes from ds_log_points.def. The type signature ('s'
 * a string, 'd' 32 bits, 'D' 64 bits), the record size, the console format and the identifier of
 * the whole table are computed here at compile time. A call whose arguments do not fit the format
 * does not compile.
 */
#ifndef DS_TRACE_H
#define DS_TRACE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include <pthread.h>

#include "ds_internal.h"

namespace ds_log {

enum class channel : uint32_t {
    pub = DS_CHANNEL_PUB,
    reg = DS_CHANNEL_REG,
    err = DS_CHANNEL_ERR,
    notif = DS_CHANNEL_NOTIF,
    main = DS_CHANNEL_MAIN,
    any = DS_CHANNEL_COUNT /* the caller names the channel */
};

enum class id : uint32_t {
#define DS_LOG_POINT(number, channel_name, tag, format) tag = (number),
#include "ds_log_points.def"
#undef DS_LOG_POINT
};

struct point {
    uint32_t number;
    ds_log::channel channel;
    const char *tag;
    const char *format;
};

inline constexpr point points[] = {
#define DS_LOG_POINT(number, channel_name, tag, format)                                            \
    {(number), channel::channel_name, #tag, (format)},
#include "ds_log_points.def"
#undef DS_LOG_POINT
};
inline constexpr std::size_t point_count = std::size(points);

consteval bool numbered_in_order() {
    for (std::size_t i = 0; i < point_count; i++)
        if (points[i].number != i) return false;
    return true;
}
static_assert(point_count == 87 && numbered_in_order(), "the table holds points 0 to 86, in order");

/* ---- what a format asks for ---- */

/* One conversion of a format; the value is its letter in the type signature, but for the pointer
 * ('D'). */
enum class kind : char { string = 's', word = 'd', wide = 'D', pointer = 'p', unknown = '?' };

constexpr std::size_t length(const char *text) {
    std::size_t n = 0;
    while (text[n] != '\0')
        n++;
    return n;
}

/* The conversion whose text starts behind a '%'; moves `at` to its last character. */
constexpr kind conversion(const char *format, std::size_t &at) {
    while (format[at] == '0' || (format[at] >= '1' && format[at] <= '9'))
        at++;
    const bool is_long = format[at] == 'l';
    if (is_long) at++;
    switch (format[at]) {
    case 's':
        return is_long ? kind::unknown : kind::string;
    case 'p':
        return is_long ? kind::unknown : kind::pointer;
    case 'x':
        return is_long ? kind::unknown : kind::word;
    case 'd':
    case 'u':
        return is_long ? kind::wide : kind::word;
    default:
        return kind::unknown;
    }
}

constexpr std::size_t count_conversions(const char *format) {
    std::size_t count = 0;
    for (std::size_t at = 0; format[at] != '\0'; at++) {
        if (format[at] != '%') continue;
        at++;
        if (format[at] == '%') continue;
        conversion(format, at);
        count++;
    }
    return count;
}

template <std::size_t N> constexpr std::array<kind, N> list_conversions(const char *format) {
    std::array<kind, N> kinds{};
    std::size_t count = 0;
    for (std::size_t at = 0; format[at] != '\0'; at++) {
        if (format[at] != '%') continue;
        at++;
        if (format[at] == '%') continue;
        kinds[count++] = conversion(format, at);
    }
    return kinds;
}

/* ---- what a call offers ---- */

template <class... Args> struct arguments {};
/* Never defined: names the types of a call's arguments without evaluating them. */
template <class... Args> arguments<Args...> types_of(Args...);

template <class Arg> constexpr bool fits(kind wanted) {
    switch (wanted) {
    case kind::string:
        return std::is_same_v<Arg, const char *> || std::is_same_v<Arg, char *>;
    case kind::word:
        return std::is_integral_v<Arg> && sizeof(Arg) == 4;
    case kind::wide:
        return std::is_integral_v<Arg> && sizeof(Arg) == 8;
    case kind::pointer:
        return std::is_pointer_v<Arg> && std::is_void_v<std::remove_pointer_t<Arg>>;
    default:
        return false;
    }
}

/* ---- everything about one point, computed from its row ---- */

template <id Id> struct site {
    static constexpr const point &row = points[static_cast<uint32_t>(Id)];
    static constexpr std::size_t argument_count = count_conversions(row.format);
    static constexpr std::array<kind, argument_count> kinds =
        list_conversions<argument_count>(row.format);

    static constexpr std::array<char, argument_count + 1> signature = [] {
        std::array<char, argument_count + 1> letters{};
        for (std::size_t i = 0; i < argument_count; i++)
            letters[i] = kinds[i] == kind::pointer ? 'D' : static_cast<char>(kinds[i]);
        return letters;
    }();

    static constexpr uint32_t has_strings = [] {
        for (kind k : kinds)
            if (k == kind::string) return 1u;
        return 0u;
    }();

    /* 4, plus 1 for each 32-bit and 2 for each 64-bit argument, plus 1 when that reaches 10. */
    static constexpr uint32_t record_size = [] {
        uint32_t size = 4;
        for (char letter : signature)
            size += letter == 'd' ? 1 : letter == 'D' ? 2 : 0;
        return size >= 10 ? size + 1 : size;
    }();

    /* "[TAG/%lu] " and the message format. */
    static constexpr auto console_format = [] {
        constexpr std::size_t tag_length = length(row.tag);
        constexpr std::size_t format_length = length(row.format);
        std::array<char, tag_length + format_length + 8> text{};
        std::size_t at = 0;
        text[at++] = '[';
        for (std::size_t i = 0; i < tag_length; i++)
            text[at++] = row.tag[i];
        for (char c : {'/', '%', 'l', 'u', ']', ' '})
            text[at++] = c;
        for (std::size_t i = 0; i < format_length; i++)
            text[at++] = row.format[i];
        return text;
    }();

    template <class... Args> static constexpr bool accepts(arguments<Args...> *) {
        if constexpr (sizeof...(Args) == argument_count) {
            std::size_t at = 0;
            return (fits<Args>(kinds[at++]) && ...);
        } else {
            return false;
        }
    }
};

/* Index of a point's channel in ds_lib_rtrace. */
template <id Id> consteval uint32_t channel_index() {
    static_assert(site<Id>::row.channel != channel::any,
                  "this log point has no channel of its own");
    return static_cast<uint32_t>(site<Id>::row.channel);
}

/* ---- the identifier of the table ---- */

/* 32 lower-case hexadecimal digits over every row, so that a reader of trace records can tell
   whether it knows the formats that the writer used. */
inline constexpr std::array<char, 33> format_id = [] {
    std::array<char, 33> text{};
    for (std::size_t half = 0; half < 2; half++) {
        uint64_t hash = 14695981039346656037u + half;
        auto add = [&hash](unsigned char byte) { hash = (hash ^ byte) * 1099511628211u; };
        for (const point &row : points) {
            add(static_cast<unsigned char>(row.number));
            add(static_cast<unsigned char>(row.channel));
            for (const char *c = row.tag; *c != '\0'; c++)
                add(static_cast<unsigned char>(*c));
            add(0);
            for (const char *c = row.format; *c != '\0'; c++)
                add(static_cast<unsigned char>(*c));
            add(0);
        }
        for (std::size_t i = 0; i < 16; i++)
            text[half * 16 + i] = "0123456789abcdef"[hash >> (60 - 4 * i) & 15];
    }
    return text;
}();

} // namespace ds_log

#define DS_TRACE_AS(function, handle, tag, ...)                                                    \
    do {                                                                                           \
        using ds_site_ = ds_log::site<ds_log::id::tag>;                                            \
        static_assert(                                                                             \
            ds_site_::accepts(static_cast<decltype(ds_log::types_of(__VA_ARGS__)) *>(nullptr)),    \
            "the arguments do not match the format of log point " #tag);                           \
        rtrace_handle_t ds_handle_ = (handle);                                                     \
        if (ds_handle_ != NULL)                                                                    \
            rtrace_internal(ds_handle_, ds_site_::row.number, ds_site_::record_size,               \
                            ds_site_::has_strings, ds_site_::signature.data(),                     \
                            ds_site_::row.format __VA_OPT__(, ) __VA_ARGS__);                      \
        FILE *ds_console_ = ds_console();                                                          \
        if (ds_console_ != NULL)                                                                   \
            ds_console_line(ds_console_, (function), ds_site_::console_format.data(),              \
                            static_cast<unsigned long>(pthread_self()) __VA_OPT__(, )              \
                                __VA_ARGS__);                                                      \
    } while (0)

/* The handle of the channel that the table gives a point. */
#define DS_TRACE_CHANNEL(tag) ds_lib_rtrace[ds_log::channel_index<ds_log::id::tag>()]

#define DS_TRACE(tag, ...)                                                                         \
    DS_TRACE_AS(__func__, DS_TRACE_CHANNEL(tag), tag __VA_OPT__(, ) __VA_ARGS__)
#define DS_TRACE_ON(handle, tag, ...) DS_TRACE_AS(__func__, handle, tag __VA_OPT__(, ) __VA_ARGS__)
#define DS_TRACE_IN(function, tag, ...)                                                            \
    DS_TRACE_AS(function, DS_TRACE_CHANNEL(tag), tag __VA_OPT__(, ) __VA_ARGS__)

#endif
