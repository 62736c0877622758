// Appends events as frames, without building the Event around them.
#pragma once
#include <google/protobuf/message_lite.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "host/fields.h"
#include "proto/frame.h"

namespace ds::host {

// A frame with an Event whose body is the message; event_field is the body's field number in Event.
inline void append_event(std::string &out, int event_field,
                         const google::protobuf::MessageLite &message) {
    const std::size_t bytes = message.ByteSizeLong();
    proto::append_header(out, Fields::message_bytes(bytes));
    Fields(out).message_header(event_field, bytes);
    const std::size_t start = out.size();
    out.resize(start + bytes);
    message.SerializeWithCachedSizesToArray(reinterpret_cast<std::uint8_t *>(out.data()) + start);
}

// A successful reply whose list is encoded already.
inline void append_list_reply(std::string &out, std::uint32_t seq, std::string_view list) {
    const std::size_t bytes = Fields::number_bytes(seq) + Fields::message_bytes(list.size());
    proto::append_header(out, Fields::message_bytes(bytes));
    Fields fields(out);
    fields.message_header(v1::Event::kReplyFieldNumber, bytes);
    fields.number(v1::Reply::kSeqFieldNumber, seq);
    fields.message(v1::Reply::kListFieldNumber, list);
}

} // namespace ds::host
