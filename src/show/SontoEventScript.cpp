#include "show/SontoEventScript.h"

#include <QString>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <sstream>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "show/AudioCue.h"

namespace {

using Action = SontoScriptEvent::Action;

struct NamedAction {
  const char* name;
  Action action;
};

// The actions that take no argument.
constexpr NamedAction kPlainActions[] = {
    {"panic", Action::Panic},         {"pause-all", Action::PauseAll}, {"resume-all", Action::ResumeAll},
    {"stop-all", Action::StopAll},    {"hard-stop-all", Action::HardStopAll}, {"duck", Action::Duck},
    {"unduck", Action::Unduck},
};

// A token as a message echoes it: quoted, and cut at a character boundary after 40
// bytes, so that a megabyte without a space makes a message of one line.
std::string quoted(const std::string& token) {
  constexpr size_t kShownBytes = 40;
  if (token.size() <= kShownBytes) return "'" + token + "'";
  size_t cut = kShownBytes;
  while (cut > 0 && (uint8_t(token[cut]) & 0xC0) == 0x80) --cut;
  std::string quoted = "'";
  quoted += token.substr(0, cut);
  quoted += "…'";
  return quoted;
}

// A whole token as a finite decimal number.
std::optional<double> number(const std::string& token) {
  double value = 0;
  const char* end = token.data() + token.size();
  auto [last, status] = std::from_chars(token.data(), end, value);
  if (status != std::errc() || last != end || !std::isfinite(value)) return std::nullopt;
  return value;
}

// A whole token as an integer within [low, high].
std::optional<int> integer(const std::string& token, int low, int high) {
  int value = 0;
  const char* end = token.data() + token.size();
  auto [last, status] = std::from_chars(token.data(), end, value);
  if (status != std::errc() || last != end || value < low || value > high) return std::nullopt;
  return value;
}

std::vector<std::string> tokensOf(const std::string& line) {
  std::vector<std::string> tokens;
  std::istringstream in(line.substr(0, line.find('#')));
  for (std::string token; in >> token;) tokens.push_back(token);
  return tokens;
}

// One line's event after the time; an empty answer with the reason in error.
std::optional<SontoScriptEvent> actionOf(const std::vector<std::string>& t, std::string& error) {
  SontoScriptEvent event;
  const std::string& name = t[1];
  size_t used = 2;
  if (name == "key") {
    if (t.size() < 4) {
      error = "'key' needs a key and 'down' or 'up'";
      return std::nullopt;
    }
    const QString key = QString::fromUtf8(t[2].data(), qsizetype(t[2].size()));
    if (key.size() != 1 && !(key.size() == 2 && key[0].isHighSurrogate())) {
      error = quoted(t[2]) + " is not one key";
      return std::nullopt;
    }
    if (t[3] != "down" && t[3] != "up") {
      error = "expected 'down' or 'up' after the key, not " + quoted(t[3]);
      return std::nullopt;
    }
    event.key = AudioCue::parseHotkey(t[2]);
    event.action = t[3] == "down" ? Action::KeyDown : Action::KeyUp;
    used = 4;
  } else if (name == "note") {
    if (t.size() < 4) {
      error = "'note' needs a note number and 'on' or 'off'";
      return std::nullopt;
    }
    std::optional<int> note = integer(t[2], 0, 127);
    if (!note) {
      error = "bad note " + quoted(t[2]) + " (0 to 127)";
      return std::nullopt;
    }
    if (t[3] != "on" && t[3] != "off") {
      error = "expected 'on' or 'off' after the note, not " + quoted(t[3]);
      return std::nullopt;
    }
    event.action = t[3] == "on" ? Action::NoteOn : Action::NoteOff;
    event.note = uint8_t(*note);
    event.velocity = event.action == Action::NoteOn ? 127 : 0;
    used = 4;
    if (used < t.size() && t[used] != "channel") {
      std::optional<int> velocity = integer(t[used], 0, 127);
      if (!velocity) {
        error = "bad velocity " + quoted(t[used]) + " (0 to 127)";
        return std::nullopt;
      }
      event.velocity = uint8_t(*velocity);
      ++used;
    }
    if (used < t.size() && t[used] == "channel") {
      std::optional<int> channel = used + 1 < t.size() ? integer(t[used + 1], 1, 16) : std::nullopt;
      if (!channel) {
        error = "bad channel " + quoted(used + 1 < t.size() ? t[used + 1] : std::string()) + " (1 to 16)";
        return std::nullopt;
      }
      event.channel = *channel;
      used += 2;
    }
  } else if (name == "volume") {
    std::optional<double> gain = t.size() > 2 ? number(t[2]) : std::nullopt;
    if (!gain || *gain < 0 || *gain > 16) {
      error = "bad gain " + quoted(t.size() > 2 ? t[2] : std::string()) + " (a linear gain, 0 to 16)";
      return std::nullopt;
    }
    event.action = Action::Volume;
    event.gain = float(*gain);
    used = 3;
  } else {
    auto plain = std::find_if(std::begin(kPlainActions), std::end(kPlainActions),
                              [&](const NamedAction& a) { return name == a.name; });
    if (plain == std::end(kPlainActions)) {
      error = "unknown action " + quoted(name);
      return std::nullopt;
    }
    event.action = plain->action;
  }
  if (used < t.size()) {
    error = "unexpected " + quoted(t[used]) + " after " + quoted(name);
    return std::nullopt;
  }
  return event;
}

}  // namespace

std::optional<std::vector<SontoScriptEvent>> SontoEventScript::parse(const std::string& text, const std::string& name,
                                                                    std::string* error) {
  std::vector<SontoScriptEvent> events;
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  std::istringstream in(text.starts_with(kByteOrderMark) ? text.substr(kByteOrderMark.size()) : text);
  int lineNumber = 0;
  for (std::string line; std::getline(in, line);) {
    ++lineNumber;
    const std::vector<std::string> tokens = tokensOf(line);
    if (tokens.empty()) continue;
    std::string why;
    std::optional<double> time = number(tokens[0]);
    std::optional<SontoScriptEvent> event;
    if (!time || *time < 0) {
      why = "bad time " + quoted(tokens[0]) + " (seconds, 0 or more)";
    } else if (*time > kMaxSeconds) {
      why = "time " + quoted(tokens[0]) + " is past the longest render (" + std::to_string(int(kMaxSeconds)) +
            " seconds)";
    } else if (tokens.size() < 2) {
      why = "missing action after the time";
    } else {
      event = actionOf(tokens, why);
    }
    if (!event) {
      if (error) *error = name + ":" + std::to_string(lineNumber) + ": " + why;
      return std::nullopt;
    }
    event->time = *time;
    event->line = lineNumber;
    events.push_back(std::move(*event));
  }
  std::stable_sort(events.begin(), events.end(),
                   [](const SontoScriptEvent& a, const SontoScriptEvent& b) { return a.time < b.time; });
  return events;
}

std::optional<std::vector<SontoScriptEvent>> SontoEventScript::readFile(const std::string& path, std::string* error) {
  std::string why;
  std::string text;
  // Non-blocking: a FIFO without a writer opens at once, and is then refused by its type.
  const int file = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat status {};
  if (file < 0 || ::fstat(file, &status) != 0) {
    why = std::strerror(errno);
  } else if (!S_ISREG(status.st_mode)) {
    why = S_ISDIR(status.st_mode) ? "a folder, not a file" : "not a regular file";
  } else {
    // One byte past the limit tells a file at the limit from a larger one, even one
    // that grows while it is read.
    text.resize(kMaxFileBytes + 1);
    size_t size = 0;
    while (size < text.size()) {
      const ssize_t n = ::read(file, text.data() + size, text.size() - size);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) why = std::strerror(errno);
      if (n <= 0) break;
      size += size_t(n);
    }
    text.resize(size);
    if (why.empty() && size > kMaxFileBytes)
      why = "larger than " + std::to_string(kMaxFileBytes >> 20) + " MB, the most an event script may be";
  }
  if (file >= 0) ::close(file);
  if (!why.empty()) {
    if (error) *error = path + ": cannot be read: " + why;
    return std::nullopt;
  }
  return parse(text, path, error);
}

int64_t SontoEventScript::firstFrame(double seconds, double sampleRate) {
  const double frame = seconds * sampleRate;
  const double whole = std::round(frame);
  if (std::fabs(frame - whole) < 1e-6) return int64_t(whole);
  return int64_t(std::ceil(frame));
}
