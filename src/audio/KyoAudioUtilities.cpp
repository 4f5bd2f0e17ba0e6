#include "audio/KyoAudioUtilities.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>

KyoAudioUtilities::KyoAudioUtilities() : m_positivePrefix("+") {}

KyoAudioUtilities::KyoAudioUtilities(const KyoAudioUtilities& other)
    : m_minVolumeDb(other.minVolumeDb()), m_maxAbsoluteDb(other.maxAbsoluteDb()) {}

KyoAudioUtilities::KyoAudioUtilities(Tag, double minVolumeDb, double maxAbsoluteDb)
    : m_minVolumeDb(minVolumeDb), m_maxAbsoluteDb(maxAbsoluteDb) {}

KyoAudioUtilities KyoAudioUtilities::decodedWith(double minVolumeDb, double maxAbsoluteDb) {
  return KyoAudioUtilities(Tag{}, minVolumeDb, maxAbsoluteDb);
}

double KyoAudioUtilities::dbToLinear(double db) const {
  if (std::isnan(db) || db <= minVolumeDb()) return 0.0;
  return std::pow(10.0, db / 20.0);
}

double KyoAudioUtilities::linearToDb(double linear) const {
  const double min = minVolumeDb();
  if (std::isnan(linear) || linear <= 0.0) return min;
  return std::max(min, 20.0 * std::log10(linear));
}

double KyoAudioUtilities::sliderToDb(double x, bool absolute) const {
  const double min = minVolumeDb();
  if (std::isnan(x)) return min;
  if (!absolute) return -(x * min);
  if (x <= 0.0) return min;
  if (x <= 1.0) return std::max(min, 55.0 * std::log10(x));
  const double max = maxAbsoluteDb();
  return std::min(max, (x - 1.0) * 4.0 * max);
}

double KyoAudioUtilities::dbToSlider(double db, bool absolute) const {
  const double min = minVolumeDb();
  if (absolute) {
    if (std::isnan(db) || db <= min) return 0.0;
    if (db <= 0.0) return std::max(0.0, std::pow(10.0, db / 55.0));
    return std::min(1.25, db / maxAbsoluteDb() * 0.25 + 1.0);
  }
  if (std::isnan(db) || db <= min) return -1.0;
  if (db >= 0.0) return db / -min;
  return -(db / min);
}

std::string KyoAudioUtilities::objectValueForDbLevel(double db) const {
  if (std::isnan(db) || db <= minVolumeDb()) return "";
  char text[64];
  std::snprintf(text, sizeof text, db > 0.0 ? "+%.1f" : "%.1f", db);
  return text;
}

std::optional<double> KyoAudioUtilities::numberFromString(const std::string& text) const {
  bool negative = false;
  std::string_view rest(text);
  if (!m_negativePrefix.empty() && rest.starts_with(m_negativePrefix)) {
    negative = true;
    rest.remove_prefix(m_negativePrefix.size());
  } else if (!m_positivePrefix.empty() && rest.starts_with(m_positivePrefix)) {
    rest.remove_prefix(m_positivePrefix.size());
  }
  // Digits with at most one decimal point (the C locale's), nothing else.
  bool digit = false;
  int points = 0;
  for (char c : rest) {
    if (c >= '0' && c <= '9')
      digit = true;
    else if (c == '.')
      ++points;
    else
      return std::nullopt;
  }
  if (!digit || points > 1) return std::nullopt;
  double value = 0.0;
  auto result = std::from_chars(rest.data(), rest.data() + rest.size(), value, std::chars_format::fixed);
  if (result.ec != std::errc() || result.ptr != rest.data() + rest.size() || !std::isfinite(value))
    return std::nullopt;
  return negative ? -value : value;
}

double KyoAudioUtilities::dbLevelForObjectValue(const std::optional<std::string>& value) const {
  const double min = minVolumeDb();
  if (!value) return min;
  std::string upper = *value;
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return char(std::toupper(c)); });
  if (upper.empty() || upper == "-INF") return min;

  // An unsigned entry means attenuation.
  std::string text = *value;
  if (text.front() != '+' && text.front() != '-') text = "-" + text;

  std::optional<double> number = numberFromString(text);
  if (!number) return min;
  double db = *number;
  if (db > 0.0 && value->front() != '+') db = -db;
  if (db == 0.0) db = 0.0;  // no minus zero
  return db;
}
