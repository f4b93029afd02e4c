// xrvctl: the agent's command-line companion.
//
//   xrvctl validate DEFINITION.xml [--json]   check an agent definition

#include <cstdlib>
#include <iostream>

#include <CLI/CLI.hpp>

#include "ValidateCommand.h"
#include "definition/AgentSettings.h"
#include "framework/api/Trace.h"

int main(int argc, char** argv) {
  // The tool reports problems itself; trace lines only when asked for.
  if (getenv("XRV_TRACE") == nullptr) {
    XRV::trace::configure("off");
  }

  CLI::App app{"xrvctl: check agent definitions and talk to a running agent"};
  app.require_subcommand(1);

  ValidateOptions validate;
  CLI::App* validateCommand = app.add_subcommand(
      "validate", "Read an agent definition as the agent would and report what it declares");
  validateCommand->add_option("definition", validate.definition, "The agent definition (XML)")
      ->required();
  validateCommand->add_flag("--json", validate.json, "One JSON document instead of tables");

  CLI11_PARSE(app, argc, argv);

  int status = 2;
  if (validateCommand->parsed()) {
    status = runValidate(validate, std::cout, std::cerr);
  }
  resetDefinitionState();
  return status;
}
