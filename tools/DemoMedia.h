#pragma once
// The demo show's sounds, made at build time so that no media sits in the tree:
// tones, noises and a loop synthesised here, speech from espeak-ng when installed.
// Plain C++ and libsndfile, no Qt.

#include <cstdint>
#include <string>
#include <vector>

namespace demo {

constexpr double kSampleRate = 48000.0;  // Hz, every synthesised file

// Interleaved stereo frames at kSampleRate, linear gain -1..1.
struct StereoSound {
  std::vector<float> samples;
  int64_t frames() const { return static_cast<int64_t>(samples.size() / 2); }
};

// Each generator is deterministic (fixed seeds), so that a rebuild makes the same bytes.
StereoSound fanfare();
StereoSound bell();
StereoSound countdown();
StereoSound thunder();
StereoSound applause();
StereoSound drone(double seconds);
StereoSound lineCheck(double seconds);  // 1 kHz sine at -20 dBFS
StereoSound pinkNoise(double seconds);  // -20 dBFS RMS or so
StereoSound chime();
// Loops: the last frame runs into the first without a step, so that a looping cue
// plays them without a click at the seam.
StereoSound padLoop(double seconds);
StereoSound windLoop(double seconds);

// libsndfile; `format` is a full SF_FORMAT_* value. False with a log line on failure.
bool writeSound(const std::string& path, const StereoSound& sound, int format);

// `espeak-ng -w path text`. False (and the reason in `why`) when espeak-ng is not
// installed or fails; the show is then made without speech.
bool speak(const std::string& text, const std::string& path, std::string* why);

// The largest step between neighbouring frames of one channel, the seam (last
// frame to first) included when `wrap`. A click shows as a step far above the rest.
float largestStep(const StereoSound& sound, bool wrap);

}  // namespace demo
