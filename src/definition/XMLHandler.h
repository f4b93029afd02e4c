#pragma once

// The callbacks of the definition reader (Parser). The base implementations do
// nothing, so a handler overrides only what it needs.
//
// Texts handed to the callbacks point into the document buffer the parser works on;
// they are valid only during the call. `attributes` maps attribute names to values
// (both NUL-terminated texts in the buffer) and is cleared after each start tag.

class HashMap;

class XMLHandler {
 public:
  virtual ~XMLHandler() = default;

  virtual void startElement(const char* name, HashMap* attributes);
  virtual void endElement(const char* name);
  // Text between tags, entities already replaced. Never empty.
  virtual void characters(const char* text);
  // A syntax error: the parse stops after this call.
  virtual void fatalError(const char* message);

  // Format the message (printf style, one or two text arguments) and call the
  // virtual fatalError.
  void fatalError(const char* format, const char* arg);
  void fatalError(const char* format, const char* arg1, const char* arg2);
};
