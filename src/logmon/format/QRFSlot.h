#pragma once

// QRFSlot: one slot of a format (docs/format-files.md): a named value that every
// event of the format carries. The value is a variable of the format's expression
// ($N), a fixed text, a PRINTF of other slots, a list, or a DEFAULT computed when
// the slot is made (the host name, ...). A slot may name the custom attribute of the
// attribute group that receives its value.
//
// Names, values and custom-attribute names are kept in UTF-8 and in the native code
// page of the process.

#include <string>
#include <vector>

enum QRFSlotType {
  QRF_SLOT_LITERAL,   // a fixed text
  QRF_SLOT_VARIABLE,  // $N: what the format's Nth variable matched
  QRF_SLOT_PRINTF,    // a control string whose %s are filled with other slots
  QRF_SLOT_DEFAULT,   // computed when the slot is made (hostname, fqhostname, origin, RemoteHost)
  QRF_SLOT_LIST,      // several of the above, as one list value
};

class QRFSlot {
 public:
  // An item of a LIST value.
  struct ListItem {
    bool variable = false;  // `text` is "$N"
    std::string text;
  };

  // `value` as written: "$3" for a variable, the control string of a PRINTF, the text
  // of a literal, the computed text of a DEFAULT.
  QRFSlot(const std::string& name, const std::string& value, QRFSlotType type, bool visible,
          int line);

  const std::string& getName() const { return name_; }
  const std::string& getNativeName() const { return nativeName_; }
  const std::string& getValue() const { return value_; }
  const std::string& getNativeValue() const { return nativeValue_; }
  void setValue(const std::string& value);
  QRFSlotType getType() const { return type_; }
  // Hidden slots serve other slots' PRINTF and are not written into events.
  bool isVisible() const { return visible_; }
  // The line of the format file that defined the slot.
  int getLine() const { return line_; }
  // The variable number of a QRF_SLOT_VARIABLE slot (1 for "$1"); 0 for the others.
  int getVariable() const;

  void addPrintfVar(const std::string& slotName) { printfVars_.push_back(slotName); }
  const std::vector<std::string>& getPrintfVars() const { return printfVars_; }
  void addListItem(const ListItem& item) { listItems_.push_back(item); }
  const std::vector<ListItem>& getListItems() const { return listItems_; }

  // The custom attribute the slot's value goes to; "" when none.
  const std::string& getPQLCustomSlot() const { return customSlot_; }
  const std::string& getNativePQLCustomSlot() const { return nativeCustomSlot_; }
  void setPQLCustomSlot(const std::string& attribute);

 private:
  std::string name_;
  std::string nativeName_;
  std::string value_;
  std::string nativeValue_;
  QRFSlotType type_;
  bool visible_;
  int line_;
  std::vector<std::string> printfVars_;
  std::vector<ListItem> listItems_;
  std::string customSlot_;
  std::string nativeCustomSlot_;
};
