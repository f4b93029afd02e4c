#pragma once

// One attribute (column) of an attribute group as the agent definition's metadata
// declares it, with its place in the group's binary row.

// Attribute type codes of the row: 1 and 2 are text; 0 and 3 to 5 integers of at
// most 32 bits; 6 to 9 64-bit integers.
inline bool isTextAttributeType(int type) { return type == 1 || type == 2; }
inline bool isNumericAttributeType(int type) { return type == 0 || (type >= 3 && type <= 9); }
inline bool is64BitAttributeType(int type) { return type >= 6 && type <= 9; }

class AttributeMeta {
 public:
  // Copies the texts; `hint` may be null. `offset` is -1 for an attribute that has no
  // place in the row.
  AttributeMeta(const char* name, const char* hint, int type, int size, int offset);
  virtual ~AttributeMeta();
  AttributeMeta(const AttributeMeta&) = delete;
  AttributeMeta& operator=(const AttributeMeta&) = delete;

  const char* getName() const { return name_; }
  const char* getHint() const { return hint_; }
  int getType() const { return type_; }
  int getSize() const { return size_; }
  int getOffset() const { return offset_; }
  bool isHidden() const { return offset_ < 0; }

 private:
  char* name_;
  char* hint_;
  int type_;
  int size_;
  int offset_;
};
