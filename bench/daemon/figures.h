// What was measured: one value per run and server, printed as medians and written as JSON.
#pragma once
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server_process.h"

namespace ds::bench {

// Wanted of the ratio of the first side to the second: daemon / null server.
struct Goal {
    bool is_upper_bound = false; // else the ratio has to reach it
    double bound = 0;
};

struct Figure {
    std::string name; // unique, words joined by '_'
    std::string unit;
    std::optional<Goal> goal;
    std::vector<double> daemon;      // one value per run
    std::vector<double> null_server; // empty: the null server has no such thing
};

class Figures {
  public:
    // What the two sides are called in the output.
    explicit Figures(std::string daemon = "daemon", std::string null_server = "null server")
        : daemon_(std::move(daemon)), null_server_(std::move(null_server)) {}

    // The figure of that name, made at the first call.
    Figure &of(const std::string &name, const std::string &unit);
    void add(Kind kind, const std::string &name, const std::string &unit, double value);
    void set_goal(const std::string &name, Goal goal);

    void print(std::FILE *out) const;
    // Throws std::runtime_error when the file cannot be written.
    void write_json(const std::string &path) const;

  private:
    std::string daemon_, null_server_;
    std::vector<Figure> figures_; // in the order of their first values
};

double median(std::vector<double> values); // of at least one
// The value below which that share of the samples lies; sorts them.
double percentile(std::vector<double> &samples, double share);

} // namespace ds::bench
