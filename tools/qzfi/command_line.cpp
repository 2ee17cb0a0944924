#include "tools/qzfi/command_line.h"

#include <cstdint>
#include <optional>
#include <sstream>
#include <type_traits>
#include <utility>

#include <CLI/CLI.hpp>

namespace qzfi::tool {

Argument &Argument::required(bool is_required) {
    option_->required(is_required);
    return *this;
}

Argument &Argument::type_name(const std::string &name) {
    option_->type_name(name);
    return *this;
}

template <typename Number>
Argument &Argument::within(Number least, Number most) {
    const auto obstacle = [least, most](const std::string &given) {
        Number value{};
        // Asked so that what no number is equal to, "nan", is not in between.
        if (CLI::detail::lexical_cast(given, value) && value >= least && value <= most)
            return std::string();
        std::ostringstream text;
        text << given << (std::is_integral_v<Number> ? " is no whole number" : " is no number") << " from " << least
             << " to " << most;
        return text.str();
    };
    option_->check(CLI::Validator(obstacle, ""));
    return *this;
}

Argument &Argument::not_empty() {
    option_->check(CLI::Validator([](std::string &value) { return value.empty() ? "its value is empty" : ""; }, ""));
    return *this;
}

Argument &Argument::excludes(const std::string &other) {
    option_->excludes(other);
    return *this;
}

template <typename Value>
Argument Arguments::add_option(const std::string &names, Value &value, const std::string &description) {
    return Argument(command_->add_option(names, value, description));
}

Argument Arguments::add_flag(const std::string &names, bool &value, const std::string &description) {
    return Argument(command_->add_flag(names, value, description));
}

Argument Arguments::add_directory(const std::string &names, std::string &value, const std::string &description) {
    const auto keep = [&value, names, command = command_](const std::string &given) {
        value = absolute_path(given, command->get_name() + " " + names + " " + given);
    };
    return Argument(command_->add_option_function<std::string>(names, keep, description)->type_name("DIR")).not_empty();
}

void Arguments::footer(const std::string &text) {
    command_->footer(text);
}

CommandLine::CommandLine() : app_(std::make_unique<CLI::App>()) {}

CommandLine::~CommandLine() = default;

Arguments CommandLine::add_command(const std::string &name, const std::string &description,
                                   std::function<int()> action) {
    CLI::App *const command = app_->add_subcommand(name, description)->group("Commands");
    command->callback([this, action = std::move(action)] { action_ = action; });
    return Arguments(command);
}

// The values that subcommands have.
template Argument &Argument::within(int, int);
template Argument &Argument::within(uint32_t, uint32_t);
template Argument &Argument::within(double, double);
template Argument Arguments::add_option(const std::string &, std::string &, const std::string &);
template Argument Arguments::add_option(const std::string &, std::vector<std::string> &, const std::string &);
template Argument Arguments::add_option(const std::string &, uint32_t &, const std::string &);
template Argument Arguments::add_option(const std::string &, std::optional<uint32_t> &, const std::string &);
template Argument Arguments::add_option(const std::string &, std::optional<double> &, const std::string &);

} // namespace qzfi::tool
