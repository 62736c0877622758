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
    client::Outcome begin();
    client::Outcome await_answer();
    client::Outcome outcome_of(int error) const;
    int keep(const StopSignals &stop);
    int withdraw();
    bool is_over(const client::Outcome &outcome, int &code) const;
    void read_input();
    void update(std::string_view line);
    void report(const char *event) const;
    ds_client_service_t service() const;
    ds_publication_info_t info() const;
    std::string subject() const { return full_name(publish_.name(), publish_.instance()); }

    const Context &context_;
    v1::Publish publish_;
    Daemon daemon_;
    ds_publication_t *publication_ = nullptr; // of daemon_
    int input_fd_;
    std::string pending_; // input without its end of line yet
};

int Publisher::run() {
    const StopSignals stop; // before the publication: from then on a signal has to withdraw it
    if (const int code = connect(context_, daemon_); code != exit_ok) return code;
    const client::Outcome outcome = begin();
    if (!outcome.ok()) return fail("cannot publish " + subject(), outcome);
    report("published");
    return keep(stop);
}

ds_client_service_t Publisher::service() const {
    ds_client_service_t service{};
    service.size = sizeof service;
    service.name = publish_.name().c_str();
    service.instance = publish_.instance().c_str();
    service.scope = static_cast<std::uint32_t>(publish_.scope());
    service.ha_role = static_cast<std::uint32_t>(publish_.ha_role());
    service.issu_role = static_cast<std::uint32_t>(publish_.issu_role());
    service.issu_id = publish_.issu_id();
    service.ipv4_address = publish_.endpoint().ipv4().address();
    service.ipv4_port = publish_.endpoint().ipv4().port();
    if (publish_.endpoint().has_path()) service.path = publish_.endpoint().path().c_str();
    return service;
}

ds_publication_info_t Publisher::info() const {
    ds_publication_info_t info{};
    info.size = sizeof info;
    ds_client_publication_get_info(publication_, &info);
    return info;
}

client::Outcome Publisher::begin() {
    const ds_client_service_t wanted = service();
    const int error = ds_client_publish(daemon_.get(), &wanted, nullptr, nullptr, &publication_);
    return error == DS_CLIENT_OK ? await_answer() : daemon_.outcome_of(error);
}

client::Outcome Publisher::await_answer() {
    int error = DS_CLIENT_ERROR_INTERRUPTED;
    while (error == DS_CLIENT_ERROR_INTERRUPTED) {
        error = ds_client_publication_wait(publication_, static_cast<int>(answer_time.count()));
    }
    return outcome_of(error);
}

client::Outcome Publisher::outcome_of(int error) const {
    if (error != DS_CLIENT_ERROR_REFUSED) return daemon_.outcome_of(error);
    const ds_publication_info_t refused = info();
    return {client::Failure::refused, static_cast<v1::Status>(refused.status), refused.text};
}

int Publisher::keep(const StopSignals &stop) {
    for (;;) {
        int code = exit_ok;
        if (is_over(daemon_.dispatch(), code)) return code;
        const Wake wake = wait_for(daemon_, stop, input_fd_, client::no_deadline);
        if (wake.stop) return withdraw();
        if (wake.input) read_input();
    }
}

// True when the publication has come to its end; `code` is then the program's.
bool Publisher::is_over(const client::Outcome &outcome, int &code) const {
    const ds_publication_info_t now = info();
    if (now.by_other != 0) {
        complain(subject() + " was withdrawn by process " + std::to_string(now.by_pid) +
                 " of user " + std::to_string(now.by_uid));
        code = exit_failure;
        return true;
    }
    if (!outcome.ok()) code = fail(subject() + " is no longer published", outcome);
    return !outcome.ok();
}

int Publisher::withdraw() {
    ds_client_publication_withdraw(publication_);
    const client::Outcome outcome = await_answer();
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
    const ds_client_service_t wanted = service();
    const int error = ds_client_publication_update(publication_, &wanted);
    const client::Outcome outcome =
        error == DS_CLIENT_OK ? await_answer() : daemon_.outcome_of(error);
    if (outcome.ok()) return report("changed");
    *publish_.mutable_endpoint() = before;
    fail(subject() + " stays as it is", outcome);
}

void Publisher::report(const char *event) const {
    const ds_publication_info_t now = info();
    if (context_.is_json()) {
        Json json;
        json["event"] = event;
        json["name"] = publish_.name();
        json["instance"] = publish_.instance();
        json["scope"] = scope_text(publish_.scope());
        json["endpoint"] = endpoint_text(publish_.endpoint());
        json["id"] = now.service_id;
        json["generation"] = now.generation;
        print(json_line(json));
        return;
    }
    print(std::string(event) + ' ' + subject() + " scope " + scope_text(publish_.scope()) + " id " +
          id_text(now.service_id) + " generation " + std::to_string(now.generation) + '\n');
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
