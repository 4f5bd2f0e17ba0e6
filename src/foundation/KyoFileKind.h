#pragma once
// What a path names, checked before it is opened for reading: opening a FIFO waits
// for a writer that may never come, a device may read without end, and a loop of
// symbolic links is not the same as a missing file.

#include <string>

// Empty when the path names a regular file (symbolic links followed) or names
// nothing at all, which the open that follows reports as a missing file. Otherwise
// why it cannot be read, in words for the operator: "it is a FIFO, not a regular
// file", "its symbolic links lead round in a loop".
std::string KyoFileUnreadableReason(const std::string& path);
