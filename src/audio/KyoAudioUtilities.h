#pragma once
// Conversions between decibels, linear gain and fader position, and the text form
// of a level. The engine works in linear gains; this stands beside it for the
// interface. Main thread (or any thread); the two limits may be read and written
// from any thread.
//
// The absolute fader runs from 0.0 (silence) over 1.0 (0 dB) to 1.25 (maxAbsoluteDb):
// a 55·log10 curve below unity, a straight line above it. The relative fader maps
// -1..1 linearly onto -|minVolumeDb|..+|minVolumeDb|.

#include <atomic>
#include <optional>
#include <string>

class KyoAudioUtilities {
 public:
  // Limits -120 dB and +12 dB; the text reader takes a leading "+" as a boost.
  KyoAudioUtilities();
  // A copy keeps the limits but its text reader knows no "+" prefix, so "+6" reads
  // as no number (silence). Decoded objects behave the same way.
  KyoAudioUtilities(const KyoAudioUtilities& other);
  KyoAudioUtilities& operator=(const KyoAudioUtilities&) = delete;
  // As decoded from the keys "minVolumeDb" and "maxAbsoluteDb".
  static KyoAudioUtilities decodedWith(double minVolumeDb, double maxAbsoluteDb);

  double minVolumeDb() const { return m_minVolumeDb.load(std::memory_order_relaxed); }
  void setMinVolumeDb(double db) { m_minVolumeDb.store(db, std::memory_order_relaxed); }
  double maxAbsoluteDb() const { return m_maxAbsoluteDb.load(std::memory_order_relaxed); }
  void setMaxAbsoluteDb(double db) { m_maxAbsoluteDb.store(db, std::memory_order_relaxed); }

  // A nan anywhere below reads as silence, never as a nan gain.
  double dbToLinear(double db) const;
  double linearToDb(double linear) const;
  double sliderToDb(double slider, bool absolute) const;
  double dbToSlider(double db, bool absolute) const;
  double sliderToLinear(double slider, bool absolute) const { return dbToLinear(sliderToDb(slider, absolute)); }
  double linearToSlider(double linear, bool absolute) const { return dbToSlider(linearToDb(linear), absolute); }

  // "" at or below silence, "+%.1f" above 0, else "%.1f".
  std::string objectValueForDbLevel(double db) const;
  // Text typed by the operator into decibels: an unsigned number is attenuation
  // ("6" is -6 dB); "", "-inf" (any case), nothing or no number give minVolumeDb.
  double dbLevelForObjectValue(const std::optional<std::string>& value) const;
  double levelForObjectValue(const std::optional<std::string>& value) const {
    return dbToLinear(dbLevelForObjectValue(value));
  }

 private:
  struct Tag {};
  KyoAudioUtilities(Tag, double minVolumeDb, double maxAbsoluteDb);

  // A strict decimal reader with the configured sign prefixes; nothing on failure.
  std::optional<double> numberFromString(const std::string& text) const;

  static_assert(std::atomic<double>::is_always_lock_free);
  std::atomic<double> m_minVolumeDb{-120.0};
  std::atomic<double> m_maxAbsoluteDb{12.0};
  // The number formatter's prefixes.
  std::string m_positivePrefix;
  std::string m_negativePrefix{"-"};
};
