// dsctl publish: publishes a service for as long as the program runs.
#include <memory>
#include <string>
#include <unistd.h>

#include "cli/context.h"
#include "cli/endpoint.h"
#include "cli/help.h"
#include "cli/json.h"
#include "cli/utf8.h"
#include "cli/vocabulary.h"
#include "cli/wait.h"
#include "proto/frame.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Publishes a service and stays in the foreground: it is withdrawn when the program ends.\n"
    "ENDPOINT is a.b.c.d:port, or an absolute path for the scope local.\n"
    "Ctrl-C or SIGTERM withdraw it and end with 0. The program ends with 1 when somebody else\n"
    "withdraws it, and with 4 when the daemon goes away.";

constexpr char examples[] =
    "Examples:\n"
    "  dsctl publish web 10.0.0.1:8080\n"
    "  dsctl publish db /run/db.sock --instance main --ha active\n"
    "  next-endpoint | dsctl publish web 10.0.0.1:8080 --update-from-stdin\n";

struct Options {
    std::string name, instance, endpoint;
    v1::Scope scope = v1::SCOPE_LOCAL;
    v1::HaRole ha_role = v1::HA_ROLE_NONE;
    v1::IssuRole issu_role = v1::ISSU_ROLE_NONE;
    std::uint32_t issu_id = 0;
    bool update_from_stdin = false;
};

// One published service, from the first publication to its end.
class Publisher {
  public:
    Publisher(const Context &context, v1::Publish publish, bool read_input)
        : context_(context), publish_(std::move(publish)),
          input_fd_(read_input ? STDIN_FILENO : -1) {}

    int run();

  private:
    client::Outcome publish(const char *event);
    int keep(const StopSignals &stop);
    int withdraw();
    bool handle_events(int &code);
    void read_input();
    void update(std::string_view line);
    void report(const char *event) const;
    std::string subject() const { return full_name(publish_.name(), publish_.instance()); }

    const Context &context_;
    v1::Publish publish_;
    client::Connection connection_;
    int input_fd_;
    std::string pending_; // input without its end of line yet
    std::uint32_t id_ = 0;
    std::uint32_t generation_ = 0;
};

int Publisher::run() {
    const StopSignals stop; // before the publication: from then on a signal has to withdraw it
    if (const int code = connect(context_, connection_); code != exit_ok) return code;
    const client::Outcome outcome = publish("published");
    if (!outcome.ok()) return fail("cannot publish " + subject(), outcome);
    return keep(stop);
}

client::Outcome Publisher::publish(const char *event) {
    v1::Request request;
    *request.mutable_publish() = publish_;
    v1::Reply reply;
    client::Outcome outcome = connection_.call(request, reply, client::deadline_in(answer_time));
    if (!outcome.ok()) return outcome;
    id_ = reply.service_id();
    generation_ = reply.generation();
    report(event);
    return outcome;
}

int Publisher::keep(const StopSignals &stop) {
    for (;;) {
        // Events may have come along with a reply; the descriptor does not tell of those.
        int code = exit_ok;
        if (!handle_events(code)) return code;
        const Wake wake = wait_for(connection_, stop, input_fd_, client::no_deadline);
        if (wake.stop) return withdraw();
        if (wake.input) read_input();
    }
}

// False when the publication has come to its end; `code` is then the program's.
bool Publisher::handle_events(int &code) {
    v1::Event event;
    for (;;) {
        const client::Outcome outcome = connection_.receive(event, client::no_wait);
        if (outcome.failure == client::Failure::timeout) return true;
        if (!outcome.ok()) {
            code = fail(subject() + " is no longer published", outcome);
            return false;
        }
        if (!event.has_withdrawn() || event.withdrawn().service_id() != id_) continue;
        complain(subject() + " was withdrawn by process " +
                 std::to_string(event.withdrawn().by_pid()) + " of user " +
                 std::to_string(event.withdrawn().by_uid()));
        code = exit_failure;
        return false;
    }
}

int Publisher::withdraw() {
    v1::Request request;
    request.mutable_withdraw()->set_name(publish_.name());
    request.mutable_withdraw()->set_instance(publish_.instance());
    request.mutable_withdraw()->set_scope(publish_.scope());
    v1::Reply reply;
    const client::Outcome outcome =
        connection_.call(request, reply, client::deadline_in(answer_time));
    if (!outcome.ok()) return fail("cannot withdraw " + subject(), outcome);
    report("withdrawn");
    return exit_ok;
}

// One read for each wake: a second one could block.
void Publisher::read_input() {
    char bytes[4096];
    const ssize_t got = ::read(input_fd_, bytes, sizeof bytes);
    if (got <= 0) {
        input_fd_ = -1; // the end of the input is not the end of the publication
        if (!pending_.empty()) update(pending_);
        pending_.clear();
        return;
    }
    pending_.append(bytes, static_cast<std::size_t>(got));
    std::size_t start = 0;
    for (std::size_t end = 0; (end = pending_.find('\n', start)) != pending_.npos;
         start = end + 1) {
        update(std::string_view(pending_).substr(start, end - start));
    }
    pending_.erase(0, start);
    if (pending_.size() > 2 * proto::path_bytes_max) {
        complain("a line of the input is too long; its beginning is dropped");
        pending_.clear();
    }
}

// What cannot be read or is refused leaves the publication as it is.
void Publisher::update(std::string_view line) {
    const std::size_t last = line.find_last_not_of(" \t\r");
    if (last == line.npos) return;
    line = line.substr(0, last + 1);
    line.remove_prefix(line.find_first_not_of(" \t"));
    v1::Endpoint endpoint;
    if (const auto problem = parse_endpoint(line, endpoint)) {
        complain(subject() + " stays as it is: " + *problem);
        return;
    }
    const v1::Endpoint before = publish_.endpoint();
    *publish_.mutable_endpoint() = endpoint;
    const client::Outcome outcome = publish("changed");
    if (outcome.ok()) return;
    *publish_.mutable_endpoint() = before;
    fail(subject() + " stays as it is", outcome);
}

void Publisher::report(const char *event) const {
    if (context_.is_json()) {
        Json json;
        json["event"] = event;
        json["name"] = publish_.name();
        json["instance"] = publish_.instance();
        json["scope"] = scope_text(publish_.scope());
        json["endpoint"] = endpoint_text(publish_.endpoint());
        json["id"] = id_;
        json["generation"] = generation_;
        print(json_line(json));
        return;
    }
    print(std::string(event) + ' ' + subject() + " scope " + scope_text(publish_.scope()) + " id " +
          id_text(id_) + " generation " + std::to_string(generation_) + '\n');
}

std::string check_endpoint(const std::string &text) {
    v1::Endpoint ignored;
    return parse_endpoint(text, ignored).value_or("");
}

std::string check_instance(const std::string &text) {
    if (text.size() > proto::instance_bytes_max) return "an instance has at most 254 bytes";
    return is_utf8(text) ? "" : "an instance must be UTF-8";
}

int publish(const Context &context, const Options &options) {
    v1::Publish publish;
    publish.set_name(options.name);
    publish.set_instance(options.instance);
    publish.set_scope(options.scope);
    publish.set_ha_role(options.ha_role);
    publish.set_issu_role(options.issu_role);
    publish.set_issu_id(options.issu_id);
    if (const auto problem = parse_endpoint(options.endpoint, *publish.mutable_endpoint())) {
        complain(*problem);
        return exit_usage;
    }
    return Publisher(context, std::move(publish), options.update_from_stdin).run();
}

} // namespace

Action prepare_publish(CLI::App &app) {
    auto options = std::make_shared<Options>();
    app.description(description);
    app.footer(examples);
    app.add_option("NAME", options->name, "Name of the service, 1 to 255 bytes")
        ->required()
        ->type_name("")
        ->check(check_name);
    app.add_option("ENDPOINT", options->endpoint, "Where it is reached")
        ->required()
        ->type_name("")
        ->check(check_endpoint);
    app.add_option("--instance", options->instance, "Name of the instance (else it has none)")
        ->type_name("NAME")
        ->check(check_instance);
    add_word_option(app, "--scope", options->scope, scope_words(),
                    "Who sees it: rack, system or local (default)")
        ->type_name("SCOPE");
    add_word_option(app, "--ha", options->ha_role, ha_words(),
                    "High-availability role: active or standby")
        ->type_name("ROLE");
    add_word_option(app, "--issu", options->issu_role, issu_words(),
                    "In-service-upgrade role: primary, secondary or tertiary")
        ->type_name("ROLE");
    app.add_option("--issu-id", options->issu_id, "In-service-upgrade id")->type_name("N");
    app.add_flag("--update-from-stdin", options->update_from_stdin,
                 "Publish again with each line read as the new ENDPOINT");
    return [options](const Context &context) { return publish(context, *options); };
}

} // namespace ds::cli
