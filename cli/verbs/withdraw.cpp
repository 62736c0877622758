// dsctl withdraw: takes back what another process published.
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "cli/context.h"
#include "cli/directory.h"
#include "cli/endpoint.h"
#include "cli/help.h"
#include "cli/json.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Withdraws a publication of another process on this node, by its name or by its id.\n"
    "A user may withdraw what the same user published, root everything. The publisher is told.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl withdraw web\n"
                            "  dsctl withdraw web --instance blue --scope system\n"
                            "  dsctl withdraw --id 0x1f\n";

struct Wish {
    std::string name;
    std::optional<std::string> instance;
    std::optional<v1::Scope> scope;
    std::uint32_t id = 0;
};

bool matches(const Wish &wish, const v1::Instance &instance) {
    return instance.local() && (!wish.instance || *wish.instance == instance.instance()) &&
           (!wish.scope || *wish.scope == instance.scope()) &&
           (wish.id == 0 || wish.id == instance.service_id());
}

struct Found {
    std::string name;
    v1::Instance instance;
};

int take_back(const Context &context, Daemon &daemon, const Found &found) {
    const v1::Instance &target = found.instance;
    v1::Request request;
    request.mutable_withdraw()->set_name(found.name);
    request.mutable_withdraw()->set_service_id(target.service_id());
    v1::Reply reply;
    const client::Outcome outcome = daemon.call(request, reply, client::deadline_in(answer_time));
    const std::string id = id_text(target.service_id());
    const std::string subject = full_name(found.name, target.instance());
    if (!outcome.ok()) return fail("cannot withdraw " + subject, outcome);
    if (context.is_json()) {
        Json json;
        json["event"] = "withdrawn";
        json["id"] = target.service_id();
        json.update(instance_json(found.name, target));
        print(json_line(json));
    } else {
        print("withdrawn " + subject + " scope " + scope_text(target.scope()) + " id " + id + '\n');
    }
    return exit_ok;
}

int complain_about_many(const std::vector<Found> &found) {
    complain(std::to_string(found.size()) +
             " publications match; --instance, --scope or --id says which:");
    for (const auto &[name, instance] : found) {
        complain("  --id " + id_text(instance.service_id()) + "  " +
                 full_name(name, instance.instance()) + " scope " + scope_text(instance.scope()) +
                 ' ' + endpoint_text(instance.endpoint()) + " pid " +
                 std::to_string(instance.pid()));
    }
    return exit_failure;
}

int withdraw(const Context &context, const Wish &wish) {
    Daemon daemon;
    if (const int code = connect(context, daemon); code != exit_ok) return code;
    // An id is looked for in the listing, since a withdrawal needs the name as well.
    std::vector<Found> found;
    const client::Outcome outcome =
        list_names(daemon, wish.name, [&](const v1::Snapshot &snapshot) {
            for (const v1::Instance &instance : snapshot.instances()) {
                if (matches(wish, instance)) found.push_back({snapshot.name(), instance});
            }
        });
    if (!outcome.ok() && outcome.status != v1::STATUS_NOT_FOUND) {
        return fail("cannot look for it", outcome);
    }
    if (found.empty()) {
        complain("no such publication on this node: " +
                 (wish.id != 0 ? "id " + id_text(wish.id) : '\'' + wish.name + '\''));
        return exit_not_found;
    }
    if (found.size() > 1) return complain_about_many(found);
    return take_back(context, daemon, found.front());
}

} // namespace

Action prepare_withdraw(CLI::App &options) {
    auto wish = std::make_shared<Wish>();
    options.description(description);
    options.footer(examples);
    auto *name =
        options.add_option("NAME", wish->name, "Exact name")->type_name("")->check(check_name);
    options
        .add_option("--instance", wish->instance, "Only this instance ('' for the nameless one)")
        ->type_name("NAME")
        ->needs(name);
    add_word_option(options, "--scope", wish->scope, scope_words(),
                    "Only this scope: rack, system or local")
        ->type_name("SCOPE")
        ->needs(name);
    options.add_option("--id", wish->id, "The publication with this service id")
        ->type_name("ID")
        ->excludes(name);
    options.callback([wish, name] {
        if (name->count() == 0 && wish->id == 0) {
            throw CLI::RequiredError("a NAME or --id");
        }
    });
    return [wish](const Context &context) { return withdraw(context, *wish); };
}

} // namespace ds::cli
