#pragma once

// ConfigXMLParser: reads an agent definition by handing each top-level element to
// the parser registered for its name.
//
// A registered element's whole subtree goes to its parser, up to the end tag that
// closes it; an inner element of the same name ends the dispatch at its own end tag.
// Elements that no parser handles outside every registered element (the document's
// root among them) are ignored. A syntax error in the definition is fatal: the agent
// does not run with a broken definition.

#include "definition/XMLConfigParser.h"
#include "foundation/String.h"

class ConfigXMLParser : public XMLConfigParser {
 public:
  ConfigXMLParser();
  ~ConfigXMLParser() override;

  void startElement(const char* name, HashMap* attributes) override;
  void endElement(const char* name) override;
  void characters(const char* text) override;
  // Traces the message and ends the process (exit_with_notification(-1)).
  void fatalError(const char* message) override;

  // The dispatcher of the definition being read right now, or null. Element parsers
  // that find the definition unusable report through it (reportDefinitionError).
  static ConfigXMLParser* active();

  // Whether the document had an <agent> element outside every registered element:
  // a file without one is not an agent definition.
  bool sawAgentElement() const { return sawAgent_; }

 protected:
  // An element outside every registered element that no parser handles; `depth` 0
  // is the document's root. Called before the element is skipped.
  virtual void unhandledElement(const char* name, int depth);
  // After a fatal error that did not end the process (a subclass that only checks
  // definitions), the rest of the document is ignored.
  void markFailed() { failed_ = true; }

 private:
  XMLConfigParser* current_ = nullptr;
  XRV::String currentName_;
  int unhandledDepth_ = 0;
  bool failed_ = false;
  bool sawAgent_ = false;
  ConfigXMLParser* previousActive_;
};

// A problem that makes the definition unusable, found by an element parser rather
// than the XML reader: goes to the active dispatcher's fatalError, or ends the
// process when no definition is being read.
void reportDefinitionError(const char* message);

// Reads the agent definition at `path` into the registered parsers. False when the
// file cannot be read ("Error opening file %s" is traced with the reason: missing, a
// directory, a FIFO or device, larger than maxReadFileBytes()) or holds no <agent>
// element; a syntax error does not return (see ConfigXMLParser::fatalError).
bool initFromFile(const char* path);
