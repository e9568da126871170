#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tool/Options.h"
#include "tool/Report.h"

namespace tool {

/// Help texts, no wider than the terminal.
class Help : public CLI::Formatter {
 public:
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override;
  std::string make_description(const CLI::App* app) const override;
  std::string make_usage(const CLI::App* app, std::string name) const override;
  std::string make_subcommand(const CLI::App* verb) const override;
  std::string make_option(const CLI::Option* option, bool positional) const override;
};

/// What a command line that is not understood is answered with, "did you mean" included.
Failure usageFailure(const CLI::App& program, const CLI::ParseError& error);

/// False for a flag.
bool takesValue(const CLI::Option& option);

/// "-t,--timeout SECONDS": how an option is written.
std::string flagsOf(const CLI::Option& option);

/// The options of an application that stand in its help, arguments left out.
std::vector<const CLI::Option*> optionsOf(const CLI::App& app);
std::vector<const CLI::Option*> argumentsOf(const CLI::App& app);
std::vector<const CLI::App*> verbsOf(const CLI::App& program);

/// The verb of that name, or a failure.
const CLI::App& findVerb(const CLI::App& program, const std::string& name);

}  // namespace tool
