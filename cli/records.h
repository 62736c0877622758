// Printing records that come in pages, in the format that was asked for.
//
// Nothing is kept but the page that is being printed, however many pages there are.
#pragma once
#include <string>
#include <vector>

#include "cli/context.h"
#include "cli/json.h"
#include "cli/output.h"

namespace ds::cli {

class Records {
  public:
    Records(const Context &context, std::vector<std::string> titles)
        : context_(context), table_(std::move(titles)) {}

    // One of the two, as context.is_json() says.
    void add(const Json &object);
    void add(const std::vector<std::string> &cells) { table_.add(cells); }
    // Prints what was added since the page before.
    void end_page();
    // Behind the last page. Not after a failure: an array that is not closed cannot be taken for
    // a whole one.
    void finish();

  private:
    const Context &context_;
    Table table_;
    std::string page_;
    bool is_open_ = false; // the array has an object
};

// The only object of an answer.
void print_object(const Context &context, const Json &object);

} // namespace ds::cli
