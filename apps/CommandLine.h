// Options of the command line, as the commands see them: CLI11, of which every source that includes it compiles all
// anew, stays in one place.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
class Validator;
}  // namespace CLI

namespace VexelAlgorithm::Apps {

/// What an argument must be, and its words in the help.
class ArgumentCheck {
public:
    /// Tells in a sentence what is wrong with the text of an argument; empty for nothing.
    using Fault = std::function<std::string(const std::string&)>;

    explicit ArgumentCheck(const Fault& fault, const std::string& description = "");
    explicit ArgumentCheck(const CLI::Validator& validator);
    const CLI::Validator& validator() const { return *_validator; }

private:
    std::shared_ptr<const CLI::Validator> _validator;
};
ArgumentCheck operator&(const ArgumentCheck& one, const ArgumentCheck& other);
ArgumentCheck one_of(const std::vector<std::string>& words);

/// One option of a command; copies name the same one.
class CommandOption {
public:
    explicit CommandOption(CLI::Option& option) : _option(&option) {}

    const CommandOption& check(const ArgumentCheck& check) const;
    const CommandOption& required() const;
    const CommandOption& expected(int count) const;
    const CommandOption& expected(int fewest, int most) const;
    /// Without the option, its variable takes this value, and the help says so.
    const CommandOption& default_value(const std::string& value) const;
    /// The help tells the value that the variable has now.
    const CommandOption& show_default() const;
    const CommandOption& needs(const CommandOption& other) const;
    const CommandOption& excludes(const CommandOption& other) const;

private:
    CLI::Option* _option;
};

/// A command, or the tool itself, and its options; copies name the same one.
class CommandLine {
public:
    explicit CommandLine(CLI::App& app) : _app(&app) {}

    CommandLine add_command(const std::string& name, const std::string& description) const;
    /// `names` as "--name" or, without dashes, a positional argument. The variable is a string, an int, a float, a
    /// double, an unsigned 64-bit number, or a vector of strings, ints, floats or doubles. It outlives the parsing.
    template <class Value>
    CommandOption add_option(const std::string& names, Value& value, const std::string& description) const;
    CommandOption add_flag(const std::string& names, bool& isGiven, const std::string& description) const;
    /// Called when the command is given.
    void when_given(const std::function<void()>& action) const;

private:
    CLI::App* _app;
};

}  // namespace VexelAlgorithm::Apps
