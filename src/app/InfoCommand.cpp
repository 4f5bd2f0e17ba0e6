// sonto info FILE...: what the file reader makes of each file, in plain words.
// Readable files go to standard output; for the others the reason, taken from the
// reader's own log lines of the open attempt, goes to standard error.

#include <cstdio>
#include <string>
#include <vector>

#include "app/Commands.h"
#include "audio/KyoAudioFile.h"
#include "foundation/KyoAlias.h"
#include "foundation/KyoFileKind.h"
#include "foundation/KyoLog.h"

namespace {

std::string trimmed(const std::string& text) {
  size_t first = text.find_first_not_of(" \t");
  size_t last = text.find_last_not_of(" \t\r\n");
  return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

bool startsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

// One short reason out of the lines that the open attempt logged.
std::string reasonFrom(const std::vector<std::string>& lines) {
  std::string code;
  for (const std::string& raw : lines) {
    std::string line = trimmed(raw);
    if (startsWith(line, "Description:")) {
      std::string description = trimmed(line.substr(12));
      return code.empty() ? description : description + " (code " + code + ")";
    }
    if (startsWith(line, "Code:")) code = trimmed(line.substr(5));
  }
  for (const std::string& raw : lines) {
    std::string line = trimmed(raw);
    // "Error: Cannot read 'PATH': REASON", the reason in words already.
    size_t reason = line.rfind("': ");
    if (startsWith(line, "Error: Cannot read '") && reason != std::string::npos) return line.substr(reason + 3);
    if (line.find("Could not find file") != std::string::npos) return "file not found";
    if (line.find("Too many files open") != std::string::npos) return "too many files open";
    if (line.find("Couldn't find any audio") != std::string::npos) return "no sound in the file";
  }
  if (!lines.empty()) return trimmed(startsWith(lines.front(), "Error: ") ? lines.front().substr(7) : lines.front());
  return "not an audio file that can be read";
}

bool describeFile(const std::string& path) {
  auto alias = KyoAlias::aliasWithPath(path);
  if (!alias) {
    const std::string why = KyoFileUnreadableReason(path);
    std::fprintf(stderr, "%s: cannot be read: %s\n", path.c_str(), why.empty() ? "file not found" : why.c_str());
    return false;
  }
  std::vector<std::string> lines;
  KyoSetLogSink([&lines](const std::string& line) { lines.push_back(line); });
  KyoAudioFile file(alias);
  KyoSetLogSink(nullptr);

  auto format = file.fileFormat();
  if (!file.validFile() || !format) {
    std::fprintf(stderr, "%s: cannot be read: %s\n", path.c_str(), reasonFrom(lines).c_str());
    return false;
  }
  std::printf("%s\n", path.c_str());
  std::printf("  decoder:     %s\n", file.decoderName().c_str());
  std::printf("  sample rate: %.0f Hz\n", format->sampleRate());
  std::printf("  channels:    %u\n", format->channels());
  std::printf("  length:      %lld frames, %.3f seconds\n", (long long)file._fileLengthInFrames(),
              file.fileLengthInSeconds());
  return true;
}

}  // namespace

int sontoInfoCommand(int argc, char** argv) {
  if (argc < 1) {
    std::fprintf(stderr, "usage: sonto info FILE...\n");
    return 2;
  }
  bool allRead = true;
  for (int i = 0; i < argc; ++i) allRead = describeFile(argv[i]) && allRead;
  std::fflush(stdout);
  return allRead ? 0 : 1;
}
