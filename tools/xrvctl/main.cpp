// xrvctl: the agent's command-line companion.
//
//   xrvctl validate DEFINITION.xml [--json]   check an agent definition
//   xrvctl sample DEFINITION.xml [GROUP...] [--format table|json|csv]
//                                             one demand sample per group, in-process
//   xrvctl query [--url URL] GROUP [--node MSN] one table of a running agent
//   xrvctl events [--url URL] [--group G] [--follow] [--format table|json]
//                                             the event rows of a running agent
//   xrvctl stop [--url URL] [--token T]       shut a running agent down in order
//   xrvctl logtest MDL_FILE LOG_FILE [--json] run an MDL definition over a log file
//   xrvctl logtest CONF_FILE [FORMAT_FILE] LOG_FILE [--json]
//                                             the same with a conf and a format file
//   xrvctl mdl CONF_FILE [FORMAT_FILE] [--app NAME] [--group NAME] [--subnode-type T]
//                                             the MDL text of a conf and a format file

#include <cstdlib>
#include <iostream>

#include <CLI/CLI.hpp>

#include "EventsCommand.h"
#include "LogtestCommand.h"
#include "MdlCommand.h"
#include "QueryCommand.h"
#include "SampleCommand.h"
#include "StopCommand.h"
#include "ValidateCommand.h"
#include "definition/AgentSettings.h"
#include "framework/Settings.h"
#include "framework/Trace.h"

int main(int argc, char** argv) {
  // The tool reports problems itself; trace lines only when asked for.
  if (!XRV::readSetting(XRV::Setting::Trace).set) {
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

  SampleOptions sample;
  CLI::App* sampleCommand = app.add_subcommand(
      "sample", "Build the definition's data providers here and print one sample of each group");
  sampleCommand->add_option("definition", sample.definition, "The agent definition (XML)")
      ->required();
  sampleCommand->add_option("groups", sample.groups,
                            "Attribute groups (or tables) to sample; all when none is named");
  sampleCommand->add_option("--format", sample.format, "Output format")
      ->check(CLI::IsMember({"table", "json", "csv"}));

  QueryOptions query;
  CLI::App* queryCommand =
      app.add_subcommand("query", "Sample one table of a running agent through its HTTP API");
  queryCommand->add_option("group", query.group, "The attribute group")->required();
  queryCommand->add_option("--url", query.url, "The agent's HTTP API")->capture_default_str();
  queryCommand->add_option("--node", query.node, "A subnode's managed system name");
  queryCommand->add_option("--format", query.format, "Output format")
      ->check(CLI::IsMember({"table", "json", "csv"}));

  EventsOptions events;
  CLI::App* eventsCommand = app.add_subcommand(
      "events", "Print the event rows a running agent holds; with --follow, also those to come");
  eventsCommand->add_option("--url", events.url, "The agent's HTTP API")->capture_default_str();
  eventsCommand->add_option("--group", events.group, "Only the events of this attribute group");
  eventsCommand->add_flag("--follow,-f", events.follow,
                          "Keep printing events as they come, reconnecting when the connection "
                          "is lost, until interrupted");
  eventsCommand
      ->add_option("--format", events.format,
                   "Output format: a table, or one JSON "
                   "object per line")
      ->check(CLI::IsMember({"table", "json"}));

  StopOptions stop;
  CLI::App* stopCommand =
      app.add_subcommand("stop", "Shut a running agent down in order (needs its admin token)");
  stopCommand->add_option("--url", stop.url, "The agent's HTTP API")->capture_default_str();
  stopCommand->add_option("--token", stop.token,
                          "The agent's XRV_ADMIN_TOKEN (default: $XRV_ADMIN_TOKEN)");

  LogtestOptions logtest;
  CLI::App* logtestCommand = app.add_subcommand(
      "logtest", "Run an MDL definition over a log file and print the records it keeps");
  logtestCommand
      ->add_option("files", logtest.files,
                   "MDL_FILE LOG_FILE, or CONF_FILE [FORMAT_FILE] LOG_FILE; the log file is read "
                   "from its first line")
      ->required()
      ->expected(2, 3);
  logtestCommand->add_flag("--json", logtest.json,
                           "One JSON object per record, then one with the statistics");

  MdlOptions mdl;
  CLI::App* mdlCommand = app.add_subcommand(
      "mdl", "Print the MDL text a conf file and a format file give, as the agent loads it");
  mdlCommand->add_option("conf", mdl.conf, "The conf file")->required();
  mdlCommand->add_option("format", mdl.format,
                         "The format file (default: the conf file's name with .fmt for .conf)");
  mdlCommand->add_option("--app", mdl.app, "The application")->capture_default_str();
  mdlCommand->add_option("--group", mdl.group, "The attribute group (the MDL's table)")
      ->capture_default_str();
  mdlCommand->add_option("--subnode-type", mdl.subnodeType, "The subnode type of the group");

  CLI11_PARSE(app, argc, argv);

  int status = 2;
  if (validateCommand->parsed()) {
    status = runValidate(validate, std::cout, std::cerr);
  }
  if (sampleCommand->parsed()) {
    status = runSample(sample, std::cout, std::cerr);
  }
  if (queryCommand->parsed()) {
    status = runQuery(query, std::cout, std::cerr);
  }
  if (eventsCommand->parsed()) {
    status = runEvents(events, std::cout, std::cerr);
  }
  if (stopCommand->parsed()) {
    status = runStop(stop, std::cout, std::cerr);
  }
  if (logtestCommand->parsed()) {
    status = runLogtest(logtest, std::cout, std::cerr);
  }
  if (mdlCommand->parsed()) {
    status = runMdl(mdl, std::cout, std::cerr);
  }
  resetDefinitionState();
  return status;
}
