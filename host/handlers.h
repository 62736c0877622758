// One function per kind of request.
//
// A handler checks the request, calls the directory and fills the reply; the reply is appended to
// the session's replies when it returns. An answer that is encoded by hand stands in `page` instead
// of the reply's body.
#pragma once
#include <string>

#include "ds.pb.h"

namespace ds::host {

class Server;
class Session;

struct Call {
    Server &server;
    Session &session;
    const v1::Request &request;
    v1::Reply &reply;
    std::string &page; // an encoded ListReply, empty for none
};

void refuse(v1::Reply &reply, v1::Status status, std::string text);

void handle_hello(Call &call);
void handle_publish(Call &call);
void handle_withdraw(Call &call);
void handle_register(Call &call);
void handle_unregister(Call &call);
void handle_list(Call &call);
void handle_status(Call &call);
void handle_dump(Call &call);
void handle_stats(Call &call);
void handle_nodes(Call &call);

} // namespace ds::host
