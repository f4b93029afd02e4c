#pragma once

// A promise of the code under fuzzing that an input broke ends the run: libFuzzer
// keeps the input that did it.

#include <cstdlib>

inline void require(bool condition) {
  if (!condition) {
    abort();
  }
}
