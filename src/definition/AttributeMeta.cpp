#include "definition/AttributeMeta.h"

#include <cstdlib>
#include <cstring>

AttributeMeta::AttributeMeta(const char* name, const char* hint, int type, int size, int offset)
    : name_(strdup(name == nullptr ? "" : name)),
      hint_(hint == nullptr ? nullptr : strdup(hint)),
      type_(type),
      size_(size),
      offset_(offset) {}

AttributeMeta::~AttributeMeta() {
  free(name_);
  free(hint_);
}
