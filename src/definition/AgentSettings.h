#pragma once

// Agent-wide values that the agent definition sets, and the instance name.
//
// Written while the definition is read (single-threaded, before collection starts)
// and only read afterwards.

#include "foundation/List.h"
#include "foundation/String.h"

// Read from the definition's "appl" element.
struct ApplicationSettings {
  XRV::String applicationName;
  XRV::String shortProductCode;  // characters 2 and 3 of the application name
  XRV::String longProductCode;   // its first three characters
  XRV::String nodeType;
  XRV::String hostName;
  XRV::String hostType;
  XRV::String affinity;  // a leading "%" or "&" asks for dynamic affinity
  XRV::String agentVersion;
  XRV::String version;
  XRV::String serviceName;  // with "_" and the instance name when there is one
  XRV::String internalAgentVersion;
};

ApplicationSettings& applicationSettings();

// The agent information record that start-up hands to the framework. The texts
// belong to applicationSettings() and instanceName.
struct AgentInformation {
  const char* applicationName;
  const char* nodeType;
  const char* affinity;
  const char* agentVersion;
  const char* version;
  const char* serviceName;
  const char* instanceName;
};

AgentInformation agentInformation();

// The agent's instance name; empty when the agent runs without one. Set by start-up
// before the definition is read.
extern XRV::String instanceName;

// Names of the repeatable configuration sections ("repeatable_section" elements):
// owned copies.
List& repeatableSections();

// Forgets everything a definition set: what the reset hooks drop (the data
// providers), the attribute groups (metaMap), the repeatable sections, the
// application settings, and whatever element a parser was in the middle of. The
// instance name stays.
void resetDefinitionState();

// Run first by resetDefinitionState, in the order added: layers above this one
// forget what they built from a definition (the providers its elements made).
using DefinitionResetHook = void (*)();
void addDefinitionResetHook(DefinitionResetHook hook);
