#pragma once
// A script of what an operator does during a rendered show: one event a line,
// "TIME ACTION ...", TIME in seconds of rendered time, '#' to the end of a line a
// comment, a UTF-8 byte-order mark at the start ignored. The actions:
//
//   key C down | key C up            a cue hot key of the first cart
//   note N on [VELOCITY] [channel C] MIDI note on (velocity 127, channel 1 unless given)
//   note N off [VELOCITY] [channel C]
//   panic | pause-all | resume-all | stop-all | hard-stop-all | duck | unduck
//   volume GAIN                      the master level, a linear gain
//
// Plain text to values, no Qt Widgets; any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct SontoScriptEvent {
  enum class Action { KeyDown, KeyUp, NoteOn, NoteOff, Panic, PauseAll, ResumeAll, StopAll, HardStopAll, Duck, Unduck, Volume };

  double time = 0;  // seconds of rendered time, from the start of the render
  Action action = Action::Panic;
  std::string key;    // keys: the hot key as a cue stores it (upper case)
  uint8_t note = 0;   // notes
  uint8_t velocity = 0;
  int channel = 1;    // 1 to 16
  float gain = 0;     // volume
  int line = 0;       // 1-based, in the script
};

class SontoEventScript {
 public:
  // The latest time a script may name: the longest render `sonto render` makes. A
  // day at 384 kHz is 3.3e10 frames, far from the 64 bits that a frame number has.
  static constexpr double kMaxSeconds = 24 * 3600;
  // The most a script file may hold: some 100,000 lines of 40 characters. A file
  // that never ends (/dev/zero) or a show's worth of audio given by mistake is
  // refused rather than read until memory runs out.
  static constexpr size_t kMaxFileBytes = size_t(4) << 20;

  // The events in time order, those of one time in the order of the lines. Null on
  // the first bad line, with "NAME:LINE: what is wrong" in error.
  static std::optional<std::vector<SontoScriptEvent>> parse(const std::string& text, const std::string& name,
                                                           std::string* error = nullptr);
  // The same from a file; a file that cannot be read, that is no regular file (a
  // device, a FIFO: refused without waiting for a writer) or is larger than
  // kMaxFileBytes is "PATH: cannot be read: why".
  static std::optional<std::vector<SontoScriptEvent>> readFile(const std::string& path, std::string* error = nullptr);

  // The first frame at or after the event's time; a time within a millionth of a
  // frame of a whole frame counts as that frame, so 0.1 s at 48 kHz is frame 4800.
  static int64_t firstFrame(double seconds, double sampleRate);
};
