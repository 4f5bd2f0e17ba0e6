#pragma once
// What a path names, checked before it is opened for reading: opening a FIFO waits
// for a writer that may never come, and a device may read without end.

#include <string>

// Empty when the path names a regular file (symbolic links followed) or cannot be
// examined, which the open that follows then reports in its own words. Otherwise
// why it is not read, for the operator: "it is a FIFO, not a regular file".
std::string KyoNotRegularFileReason(const std::string& path);
