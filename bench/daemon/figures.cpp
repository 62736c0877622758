#include "figures.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace ds::bench {

namespace {

std::string number(double value) {
    char text[32];
    const double size = value < 0 ? -value : value;
    std::snprintf(text, sizeof text, size >= 1000 ? "%.0f" : size >= 10 ? "%.1f" : "%.3f", value);
    return text;
}

std::string with_range(const std::vector<double> &values) {
    if (values.empty()) return "-";
    const auto [low, high] = std::minmax_element(values.begin(), values.end());
    return number(median(values)) + " (" + number(*low) + " .. " + number(*high) + ")";
}

// Runs of the two servers alternate, so a ratio is taken within each pair: what slows the machine
// for a while slows both sides of a pair.
std::vector<double> ratios(const Figure &figure) {
    std::vector<double> values;
    for (std::size_t i = 0; i < std::min(figure.daemon.size(), figure.null_server.size()); i++)
        if (figure.null_server[i] > 0) values.push_back(figure.daemon[i] / figure.null_server[i]);
    return values;
}

bool is_met(const Goal &goal, double ratio) {
    return goal.is_upper_bound ? ratio <= goal.bound : ratio >= goal.bound;
}

std::string goal_text(const Figure &figure) {
    const std::vector<double> values = ratios(figure);
    if (!figure.goal || values.empty()) return "";
    const std::string bound =
        (figure.goal->is_upper_bound ? "<= " : ">= ") + number(figure.goal->bound);
    return bound + (is_met(*figure.goal, median(values)) ? " goal met" : " goal not met");
}

nlohmann::json summary(const std::vector<double> &values) {
    if (values.empty()) return nullptr;
    const auto [low, high] = std::minmax_element(values.begin(), values.end());
    return {{"median", median(values)}, {"min", *low}, {"max", *high}, {"runs", values}};
}

std::string heading(std::string side) {
    std::ranges::transform(side, side.begin(), [](unsigned char c) { return std::toupper(c); });
    return side + " (MIN .. MAX)";
}

std::string key(std::string side) {
    std::ranges::replace(side, ' ', '_');
    return side;
}

using Row = std::array<std::string, 6>;

} // namespace

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double percentile(std::vector<double> &samples, double share) {
    if (samples.empty()) throw std::runtime_error("a run was too short for a single sample");
    std::sort(samples.begin(), samples.end());
    const auto index = static_cast<std::size_t>(static_cast<double>(samples.size()) * share);
    return samples[std::min(index, samples.size() - 1)];
}

Figure &Figures::of(const std::string &name, const std::string &unit) {
    for (Figure &figure : figures_)
        if (figure.name == name) return figure;
    Figure figure;
    figure.name = name;
    figure.unit = unit;
    return figures_.emplace_back(std::move(figure));
}

void Figures::add(Kind kind, const std::string &name, const std::string &unit, double value) {
    Figure &figure = of(name, unit);
    (kind == Kind::daemon ? figure.daemon : figure.null_server).push_back(value);
}

void Figures::set_goal(const std::string &name, Goal goal) {
    for (Figure &figure : figures_)
        if (figure.name == name) figure.goal = goal;
}

void Figures::print(std::FILE *out) const {
    std::vector<Row> rows = {
        {"FIGURE", "UNIT", heading(daemon_), heading(null_server_), "RATIO (MIN .. MAX)", "GOAL"}};
    for (const Figure &figure : figures_)
        rows.push_back({figure.name, figure.unit, with_range(figure.daemon),
                        with_range(figure.null_server), with_range(ratios(figure)),
                        goal_text(figure)});
    std::array<std::size_t, 6> widths = {};
    for (const Row &row : rows)
        for (std::size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], row[i].size());
    for (const Row &row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); i++) {
            line += row[i];
            line.append(widths[i] - row[i].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        std::fprintf(out, "%s\n", line.c_str());
    }
}

void Figures::write_json(const std::string &path) const {
    nlohmann::json list = nlohmann::json::array();
    for (const Figure &figure : figures_) {
        nlohmann::json entry = {{"name", figure.name},
                                {"unit", figure.unit},
                                {key(daemon_), summary(figure.daemon)},
                                {key(null_server_), summary(figure.null_server)},
                                {"ratio", summary(ratios(figure))}};
        if (figure.goal && !ratios(figure).empty())
            entry["goal"] = {
                {figure.goal->is_upper_bound ? "at_most" : "at_least", figure.goal->bound},
                {"met", is_met(*figure.goal, median(ratios(figure)))}};
        list.push_back(std::move(entry));
    }
    std::ofstream file(path);
    file << nlohmann::json{{"figures", std::move(list)}}.dump(2) << '\n';
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

} // namespace ds::bench
