#include "DemoMedia.h"

#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <random>

namespace demo {
namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

int64_t framesFor(double seconds) { return static_cast<int64_t>(std::llround(seconds * kSampleRate)); }

StereoSound silence(double seconds) {
  StereoSound sound;
  sound.samples.assign(static_cast<size_t>(framesFor(seconds)) * 2, 0.0f);
  return sound;
}

// Linear attack and release in seconds, so that no sound starts or ends on a step.
double edges(int64_t frame, int64_t frames, double attack, double release) {
  const double t = frame / kSampleRate;
  const double left = (frames - frame) / kSampleRate;
  return std::min({1.0, t / attack, left / release});
}

void add(StereoSound& sound, int64_t frame, double left, double right) {
  if (frame < 0 || frame >= sound.frames()) return;
  sound.samples[2 * frame] += static_cast<float>(left);
  sound.samples[2 * frame + 1] += static_cast<float>(right);
}

// Peak to `peak` (linear), so that every file has its level by design, not by accident.
void normalise(StereoSound& sound, double peak) {
  float largest = 0.0f;
  for (float s : sound.samples) largest = std::max(largest, std::fabs(s));
  if (largest <= 0.0f) return;
  const float gain = static_cast<float>(peak / largest);
  for (float& s : sound.samples) s *= gain;
}

// One note of a bright, slightly detuned additive tone, panned by `pan` (-1..1).
void note(StereoSound& sound, double start, double seconds, double frequency, double pan) {
  const int64_t first = framesFor(start), frames = framesFor(seconds);
  const double leftGain = std::sqrt(0.5 * (1.0 - pan)), rightGain = std::sqrt(0.5 * (1.0 + pan));
  for (int64_t i = 0; i < frames; ++i) {
    const double t = i / kSampleRate;
    double v = 0.0;
    for (int h = 1; h <= 6; ++h) v += std::sin(kTwoPi * frequency * h * t * (1.0 + 0.0007 * h)) / (h * h * 0.6 + 0.4);
    v *= edges(i, frames, 0.015, 0.12) * (0.75 + 0.25 * std::exp(-3.0 * t));
    add(sound, first + i, v * leftGain, v * rightGain);
  }
}

// A one-pole low-pass, coefficient from a cut-off in Hz.
struct LowPass {
  explicit LowPass(double cutoff) : a(1.0 - std::exp(-kTwoPi * cutoff / kSampleRate)) {}
  double operator()(double x) { return y += a * (x - y); }
  double a;
  double y = 0.0;
};

// Makes a sound loop: its last `overlap` seconds, faded out, are laid over its
// start, faded in, and then cut off. Equal-power fades keep noise at one level
// through the seam; the old end now leads straight into the old start.
StereoSound crossfadeIntoLoop(const StereoSound& raw, double overlap) {
  const int64_t fade = framesFor(overlap), frames = raw.frames() - fade;
  StereoSound loop;
  loop.samples.assign(raw.samples.begin(), raw.samples.begin() + frames * 2);
  for (int64_t i = 0; i < fade; ++i) {
    const double x = (i + 0.5) / fade;
    const double in = std::sin(0.5 * std::numbers::pi * x), out = std::cos(0.5 * std::numbers::pi * x);
    for (int c = 0; c < 2; ++c) {
      float& s = loop.samples[2 * i + c];
      s = static_cast<float>(s * in + raw.samples[2 * (frames + i) + c] * out);
    }
  }
  return loop;
}

}  // namespace

StereoSound fanfare() {
  StereoSound sound = silence(3.2);
  const double c4 = 261.63;
  const double steps[] = {1.0, 1.25992, 1.49831, 2.0};  // C E G C, equal temperament
  for (int i = 0; i < 3; ++i) note(sound, 0.3 * i, 0.28, c4 * steps[i], -0.4 + 0.4 * i);
  for (int i = 0; i < 4; ++i) note(sound, 0.9, 2.3, c4 * steps[i], -0.5 + i / 3.0);
  normalise(sound, 0.7);
  return sound;
}

StereoSound bell() {
  StereoSound sound = silence(4.0);
  // Inharmonic partials of a struck bar, each decaying at its own rate (1/s).
  const double ratios[] = {1.0, 2.756, 5.404, 8.933};
  const double decays[] = {1.2, 2.0, 3.5, 5.0};
  const double fundamental = 523.25;
  for (int64_t i = 0; i < sound.frames(); ++i) {
    const double t = i / kSampleRate;
    double v = 0.0;
    for (int p = 0; p < 4; ++p) v += std::exp(-decays[p] * t) * std::sin(kTwoPi * fundamental * ratios[p] * t) / (p + 1);
    v *= edges(i, sound.frames(), 0.002, 0.05);
    add(sound, i, v, v * 0.9);
  }
  normalise(sound, 0.6);
  return sound;
}

StereoSound countdown() {
  StereoSound sound = silence(5.0);
  for (int beep = 0; beep < 5; ++beep) {
    const double frequency = beep == 4 ? 1760.0 : 880.0;
    const double seconds = beep == 4 ? 0.6 : 0.15;
    const int64_t first = framesFor(beep), frames = framesFor(seconds);
    for (int64_t i = 0; i < frames; ++i) {
      const double v = std::sin(kTwoPi * frequency * i / kSampleRate) * edges(i, frames, 0.005, 0.02);
      add(sound, first + i, v, v);
    }
  }
  normalise(sound, 0.5);
  return sound;
}

StereoSound thunder() {
  StereoSound sound = silence(7.0);
  std::mt19937 random(7);
  std::normal_distribution<double> noise(0.0, 1.0);
  LowPass left(120.0), right(140.0), leftBody(900.0), rightBody(800.0);
  for (int64_t i = 0; i < sound.frames(); ++i) {
    const double t = i / kSampleRate;
    // A crack in the first half second, then a long rolling rumble.
    const double crack = std::exp(-8.0 * t);
    const double rumble = (1.0 - std::exp(-3.0 * t)) * std::exp(-0.45 * t) * (0.7 + 0.3 * std::sin(kTwoPi * 0.9 * t));
    const double l = left(noise(random)) * rumble * 6.0 + leftBody(noise(random)) * crack;
    const double r = right(noise(random)) * rumble * 6.0 + rightBody(noise(random)) * crack;
    const double e = edges(i, sound.frames(), 0.005, 0.5);
    add(sound, i, l * e, r * e);
  }
  normalise(sound, 0.8);
  return sound;
}

StereoSound applause() {
  StereoSound sound = silence(6.0);
  std::mt19937 random(11);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::normal_distribution<double> noise(0.0, 1.0);
  // Claps: short bursts of band-limited noise, scattered, denser in the middle.
  const int claps = 1400;
  const int64_t clapFrames = framesFor(0.012);
  for (int c = 0; c < claps; ++c) {
    const double at = 6.0 * std::pow(unit(random), 0.8) * 0.92;
    const double density = std::sin(std::numbers::pi * at / 6.0);
    if (unit(random) > density) continue;
    const double pan = unit(random) * 2.0 - 1.0, gain = 0.3 + 0.7 * unit(random);
    LowPass tone(1500.0 + 2500.0 * unit(random));
    const int64_t first = framesFor(at);
    for (int64_t i = 0; i < clapFrames; ++i) {
      const double v = tone(noise(random)) * gain * std::exp(-350.0 * i / kSampleRate);
      add(sound, first + i, v * (1.0 - pan) * 0.5, v * (1.0 + pan) * 0.5);
    }
  }
  for (int64_t i = 0; i < sound.frames(); ++i) {
    const double e = edges(i, sound.frames(), 0.3, 1.0);
    sound.samples[2 * i] *= static_cast<float>(e);
    sound.samples[2 * i + 1] *= static_cast<float>(e);
  }
  normalise(sound, 0.7);
  return sound;
}

StereoSound drone(double seconds) {
  StereoSound sound = silence(seconds);
  for (int64_t i = 0; i < sound.frames(); ++i) {
    const double t = i / kSampleRate;
    const double swell = 0.8 + 0.2 * std::sin(kTwoPi * 0.1 * t);
    const double l = std::sin(kTwoPi * 55.0 * t) + 0.5 * std::sin(kTwoPi * 82.5 * t) + 0.25 * std::sin(kTwoPi * 110.3 * t);
    const double r = std::sin(kTwoPi * 55.1 * t) + 0.5 * std::sin(kTwoPi * 82.4 * t) + 0.25 * std::sin(kTwoPi * 164.8 * t);
    const double e = swell * edges(i, sound.frames(), 2.0, 2.0);
    add(sound, i, l * e, r * e);
  }
  normalise(sound, 0.6);
  return sound;
}

StereoSound lineCheck(double seconds) {
  StereoSound sound = silence(seconds);
  for (int64_t i = 0; i < sound.frames(); ++i) {
    const double v = 0.1 * std::sin(kTwoPi * 1000.0 * i / kSampleRate) * edges(i, sound.frames(), 0.01, 0.01);
    add(sound, i, v, v);
  }
  return sound;
}

StereoSound pinkNoise(double seconds) {
  StereoSound sound = silence(seconds);
  std::mt19937 random(3);
  std::uniform_real_distribution<double> white(-1.0, 1.0);
  // Paul Kellet's economy filter: white noise through three poles gives -3 dB/octave.
  for (int c = 0; c < 2; ++c) {
    double b0 = 0, b1 = 0, b2 = 0;
    for (int64_t i = 0; i < sound.frames(); ++i) {
      const double w = white(random);
      b0 = 0.99765 * b0 + w * 0.0990460;
      b1 = 0.96300 * b1 + w * 0.2965164;
      b2 = 0.57000 * b2 + w * 1.0526913;
      const double v = (b0 + b1 + b2 + w * 0.1848) * edges(i, sound.frames(), 0.02, 0.02);
      sound.samples[2 * i + c] = static_cast<float>(v);
    }
  }
  normalise(sound, 0.35);
  return sound;
}

StereoSound chime() {
  StereoSound sound = silence(2.6);
  // The two notes of a public-address chime, each a soft bell.
  const double notes[] = {659.25, 523.25};
  for (int n = 0; n < 2; ++n) {
    const int64_t first = framesFor(0.7 * n), frames = sound.frames() - first;
    for (int64_t i = 0; i < frames; ++i) {
      const double t = i / kSampleRate;
      const double v = (std::sin(kTwoPi * notes[n] * t) + 0.3 * std::sin(kTwoPi * notes[n] * 2.0 * t)) *
                       std::exp(-1.6 * t) * edges(i, frames, 0.004, 0.1);
      add(sound, first + i, v, v);
    }
  }
  normalise(sound, 0.5);
  return sound;
}

StereoSound padLoop(double seconds) {
  // Whole cycles only: every partial and the tremolo repeat a whole number of times
  // in the loop's length, so that the seam is just the next sample.
  const double loopSeconds = std::max(1.0, std::round(seconds));
  StereoSound sound = silence(loopSeconds);
  const double partials[] = {110.0, 165.0, 220.0, 277.0, 330.0, 440.0};
  const double gains[] = {1.0, 0.6, 0.5, 0.35, 0.3, 0.15};
  for (int64_t i = 0; i < sound.frames(); ++i) {
    const double t = i / kSampleRate;
    const double tremolo = 0.8 + 0.2 * std::sin(kTwoPi * (1.0 / loopSeconds) * t);
    double l = 0.0, r = 0.0;
    for (int p = 0; p < 6; ++p) {
      l += gains[p] * std::sin(kTwoPi * partials[p] * t);
      r += gains[p] * std::sin(kTwoPi * partials[p] * t + 0.5 * p);
    }
    add(sound, i, l * tremolo, r * tremolo);
  }
  normalise(sound, 0.5);
  return sound;
}

StereoSound windLoop(double seconds) {
  const double overlap = 1.0;
  StereoSound raw = silence(seconds + overlap);
  std::mt19937 random(5);
  std::normal_distribution<double> noise(0.0, 1.0);
  LowPass left(400.0), right(450.0), gust(0.3);
  for (int64_t i = 0; i < raw.frames(); ++i) {
    const double g = 0.6 + 4.0 * std::fabs(gust(noise(random)));
    add(raw, i, left(noise(random)) * g, right(noise(random)) * g);
  }
  StereoSound loop = crossfadeIntoLoop(raw, overlap);
  normalise(loop, 0.5);
  return loop;
}

bool writeSound(const std::string& path, const StereoSound& sound, int format) {
  SF_INFO info{};
  info.samplerate = static_cast<int>(kSampleRate);
  info.channels = 2;
  info.format = format;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!file) {
    std::fprintf(stderr, "make_demo: cannot write %s: %s\n", path.c_str(), sf_strerror(nullptr));
    return false;
  }
  // Integer formats clip rather than wrap a sample that overshoots.
  sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
  const sf_count_t written = sf_writef_float(file, sound.samples.data(), sound.frames());
  const int closed = sf_close(file);
  if (written != sound.frames() || closed != 0) {
    std::fprintf(stderr, "make_demo: short write to %s\n", path.c_str());
    return false;
  }
  return true;
}

bool speak(const std::string& text, const std::string& path, std::string* why) {
  // Argument vector, no shell: the text reaches espeak-ng as one argument whatever it holds.
  const pid_t child = fork();
  if (child < 0) {
    if (why) *why = "cannot start espeak-ng";
    return false;
  }
  if (child == 0) {
    execlp("espeak-ng", "espeak-ng", "-v", "en", "-s", "150", "-w", path.c_str(), text.c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      if (why) *why = "lost espeak-ng";
      return false;
    }
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  if (why) {
    *why = WIFEXITED(status) && WEXITSTATUS(status) == 127 ? "espeak-ng is not installed"
                                                              : "espeak-ng failed";
  }
  return false;
}

float largestStep(const StereoSound& sound, bool wrap) {
  const int64_t frames = sound.frames();
  float largest = 0.0f;
  for (int c = 0; c < 2; ++c) {
    for (int64_t i = 1; i < frames; ++i)
      largest = std::max(largest, std::fabs(sound.samples[2 * i + c] - sound.samples[2 * (i - 1) + c]));
    if (wrap && frames > 1)
      largest = std::max(largest, std::fabs(sound.samples[c] - sound.samples[2 * (frames - 1) + c]));
  }
  return largest;
}

}  // namespace demo
