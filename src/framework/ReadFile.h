#pragma once

// Reading a whole file that an operator names (the agent definition, the
// configuration file), refusing what cannot be one before a byte is read: a
// directory, a FIFO (whose open would wait for a writer), a device or socket, and a
// file larger than the limit.

#include <cstddef>
#include <string>

// 64 MB, or XRV_MAX_FILE_MB from the environment when it is a positive number.
size_t maxReadFileBytes();

// True with the file's bytes in *contents. False with a message for the operator in
// *problem ("PATH is a directory, not a file", ...).
bool readWholeFile(const char* path, size_t maxBytes, std::string* contents,
                   std::string* problem);
