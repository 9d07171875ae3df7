#include "apps/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cstdint>

namespace VexelAlgorithm::Apps {

ArgumentCheck::ArgumentCheck(const Fault& fault, const std::string& description)
    : ArgumentCheck(CLI::Validator(fault, description)) {}

ArgumentCheck::ArgumentCheck(const CLI::Validator& validator)
    : _validator(std::make_shared<CLI::Validator>(validator)) {}

ArgumentCheck operator&(const ArgumentCheck& one, const ArgumentCheck& other) {
    return ArgumentCheck(one.validator() & other.validator());
}

ArgumentCheck one_of(const std::vector<std::string>& words) {
    return ArgumentCheck(CLI::IsMember(words));
}

const CommandOption& CommandOption::check(const ArgumentCheck& check) const {
    _option->check(check.validator());
    return *this;
}
const CommandOption& CommandOption::required() const {
    _option->required();
    return *this;
}
const CommandOption& CommandOption::expected(int count) const {
    _option->expected(count);
    return *this;
}
const CommandOption& CommandOption::expected(int fewest, int most) const {
    _option->expected(fewest, most);
    return *this;
}
const CommandOption& CommandOption::default_value(const std::string& value) const {
    _option->default_val(value);
    return *this;
}
const CommandOption& CommandOption::show_default() const {
    _option->capture_default_str();
    return *this;
}
const CommandOption& CommandOption::needs(const CommandOption& other) const {
    _option->needs(other._option);
    return *this;
}
const CommandOption& CommandOption::excludes(const CommandOption& other) const {
    _option->excludes(other._option);
    return *this;
}

CommandLine CommandLine::add_command(const std::string& name, const std::string& description) const {
    return CommandLine(*_app->add_subcommand(name, description));
}

template <class Value>
CommandOption CommandLine::add_option(const std::string& names, Value& value, const std::string& description) const {
    return CommandOption(*_app->add_option(names, value, description));
}
template CommandOption CommandLine::add_option(const std::string&, std::string&, const std::string&) const;
template CommandOption CommandLine::add_option(const std::string&, int&, const std::string&) const;
template CommandOption CommandLine::add_option(const std::string&, float&, const std::string&) const;
template CommandOption CommandLine::add_option(const std::string&, double&, const std::string&) const;
template CommandOption CommandLine::add_option(const std::string&, std::uint64_t&, const std::string&) const;
template CommandOption CommandLine::add_option(const std::string&, std::vector<std::string>&, const std::string&) const;
template CommandOption CommandLine::add_option(const std::string&, std::vector<int>&, const std::string&) const;
template CommandOption CommandLine::add_option(const std::string&, std::vector<float>&, const std::string&) const;
template CommandOption CommandLine::add_option(const std::string&, std::vector<double>&, const std::string&) const;

CommandOption CommandLine::add_flag(const std::string& names, bool& isGiven, const std::string& description) const {
    return CommandOption(*_app->add_flag(names, isGiven, description));
}

void CommandLine::when_given(const std::function<void()>& action) const {
    _app->callback(action);
}

}  // namespace VexelAlgorithm::Apps
