#include "foundation/KyoStringUtilities.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "foundation/KyoLog.h"

namespace {
constexpr double kOneYearSeconds = 31536000.0;

void appendTwoDigits(std::string& out, long long value, const char* separator) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, value > 9 ? "%lld%s" : "0%lld%s", value, separator);
  out += buffer;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
}  // namespace

std::string stringByFormattingSeconds(double seconds) { return stringByFormattingSeconds(seconds, 2); }

std::string stringByFormattingSeconds(double seconds, int decimalPlaces) {
  return stringByFormattingSeconds(seconds, decimalPlaces, false);
}

std::string stringByFormattingSeconds(double seconds, int decimalPlaces, bool showHours) {
  return stringByFormattingSeconds(seconds, decimalPlaces, showHours, true);
}

std::string stringByFormattingSeconds(double t, int p, bool showHours, bool forcePositive) {
  // An endless value (a loop for ever) is not shown as more than a year. A nan
  // reads as zero; a time below minus one year is held there too, so that the
  // integer parts below always fit.
  if (std::isnan(t)) t = 0.0;
  const double c = std::min(t, kOneYearSeconds);
  double x;
  bool negative = false;
  if (c >= 0.0) {
    x = c;
  } else if (forcePositive) {
    x = 0.0;
  } else {
    x = std::min(-c, kOneYearSeconds);
    negative = true;
  }
  p = std::clamp(p, 0, 9);

  long long hours = (long long)std::floor(x / 3600.0);
  long long minutes = (long long)std::floor(x / 60.0 - double(hours) * 60.0);
  const double whole = std::floor(x);
  long long secs = (long long)whole % 60;
  long long scale = 1;
  for (int i = 0; i < p; ++i) scale *= 10;
  long long fraction = (long long)std::round(double(scale) * (x - whole));

  // Rounding may reach the next unit: 59.999 at two places reads 01:00.00.
  if (fraction == scale) {
    fraction = 0;
    ++secs;
    if (secs == 60) {
      secs = 0;
      ++minutes;
      if (minutes == 60) {
        minutes = 0;
        ++hours;
      }
    }
  }

  std::string out;
  if (negative) out += "-";
  if (hours != 0)
    appendTwoDigits(out, hours, ":");
  else if (showHours)
    out += "00:";
  appendTwoDigits(out, minutes, ":");
  if (p == 0) {
    appendTwoDigits(out, secs, "");
  } else {
    appendTwoDigits(out, secs, ".");
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%0*lld", p, fraction);
    out += buffer;
  }
  return out;
}

double secondsFromFormattedString(const std::string& text) {
  if (text.empty()) return 0.0;
  const bool negative = text.front() == '-';

  // Parts from the right: seconds, minutes, hours; anything left of the hours is ignored.
  double parts[3] = {0.0, 0.0, 0.0};
  size_t end = text.size();
  for (int i = 0; i < 3; ++i) {
    size_t colon = end == 0 ? std::string::npos : text.rfind(':', end - 1);
    size_t begin = colon == std::string::npos ? 0 : colon + 1;
    parts[i] = std::fabs(KyoDoubleValue(text.substr(begin, end - begin)));
    if (colon == std::string::npos) break;
    end = colon;
  }
  const double result = parts[2] * 3600.0 + parts[1] * 60.0 + parts[0];
  return negative ? -result : result;
}

int KyoIntValue(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && isBlank(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  long long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > (long long)INT_MAX + 1) value = (long long)INT_MAX + 1;
  }
  if (negative) value = -value;
  return int(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

double KyoDoubleValue(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && isBlank(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  // Only digits or a point may start the number: no inf, nan or hex.
  if (i >= text.size() || !((text[i] >= '0' && text[i] <= '9') || text[i] == '.')) return 0.0;
  double value = 0.0;
  auto result = std::from_chars(text.data() + i, text.data() + text.size(), value, std::chars_format::general);
  if (result.ec != std::errc() || !std::isfinite(value)) return 0.0;
  return negative ? -value : value;
}

std::string stringUUID() {
  static thread_local std::mt19937_64 generator{[] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(), device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }()};
  uint8_t bytes[16];
  for (int i = 0; i < 16; i += 8) {
    uint64_t r = generator();
    for (int j = 0; j < 8; ++j) bytes[i + j] = uint8_t(r >> (8 * j));
  }
  bytes[6] = uint8_t((bytes[6] & 0x0F) | 0x40);  // version 4, random
  bytes[8] = uint8_t((bytes[8] & 0x3F) | 0x80);  // variant 1
  char out[37];
  std::snprintf(out, sizeof out,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", bytes[0], bytes[1],
                bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8], bytes[9], bytes[10],
                bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
  return out;
}

std::string addressInDotNotation(uint32_t address) {
  char out[20];
  std::snprintf(out, sizeof out, "%d.%d.%d.%d", int((address >> 24) & 0xFF), int((address >> 16) & 0xFF),
                int((address >> 8) & 0xFF), int(address & 0xFF));
  return out;
}

uint32_t addressFromDotNotation(const std::string& text) {
  std::vector<std::string> parts;
  size_t begin = 0;
  while (true) {
    size_t dot = text.find('.', begin);
    parts.push_back(text.substr(begin, dot == std::string::npos ? std::string::npos : dot - begin));
    if (dot == std::string::npos) break;
    begin = dot + 1;
  }
  if (parts.size() != 4 || KyoIntValue(parts[0]) == 0) {
    KyoLog("Error: Not an IPv4 address in dot notation: %s", text.c_str());
    return 0;
  }
  uint32_t address = 0;
  for (const auto& part : parts) address = (address << 8) | (uint32_t(KyoIntValue(part)) & 0xFF);
  return address;
}

const std::string& ellipsis() {
  static const std::string e = "\xE2\x80\xA6";
  return e;
}

size_t KyoCharacterCount(const std::string& text) {
  size_t count = 0;
  for (unsigned char c : text)
    if ((c & 0xC0) != 0x80) ++count;
  return count;
}

std::string stringWithEllipsisByTruncatingToLength(const std::string& text, size_t limit) {
  if (KyoCharacterCount(text) <= limit) return text;
  if (limit == 0) return {};
  // Cut before the first byte of character number limit - 1 (counting from 0).
  size_t characters = 0;
  size_t cut = 0;
  for (; cut < text.size(); ++cut) {
    if ((static_cast<unsigned char>(text[cut]) & 0xC0) != 0x80) {
      if (characters == limit - 1) break;
      ++characters;
    }
  }
  return text.substr(0, cut) + ellipsis();
}

namespace {
// Reads one field up to a zero byte or the end; answers where the next field starts.
size_t readMSCField(const uint8_t* bytes, size_t length, size_t pos, std::string& field) {
  for (; pos < length && bytes[pos] != 0; ++pos) {
    const uint8_t b = bytes[pos];
    if (b == '.' || (b >= '0' && b <= '9'))
      field.push_back(char(b));
    else
      KyoLog("Warning: stringFromMSCByteData: unrecognized byte value %i", int(b));
  }
  return pos < length ? pos + 1 : pos;
}
}  // namespace

std::optional<KyoMSCStrings> stringsFromMSCByteDataRepresentingNumberListPath(const uint8_t* bytes,
                                                                              size_t length) {
  if (bytes == nullptr || length == 0) return std::nullopt;
  KyoMSCStrings strings;
  size_t pos = readMSCField(bytes, length, 0, strings.Q_number);
  pos = readMSCField(bytes, length, pos, strings.Q_list);
  readMSCField(bytes, length, pos, strings.Q_path);
  return strings;
}

std::optional<KyoMSCStrings> stringsFromMSCByteDataRepresentingList(const uint8_t* bytes, size_t length) {
  if (bytes == nullptr || length == 0) return std::nullopt;
  KyoMSCStrings strings;
  readMSCField(bytes, length, 0, strings.Q_list);
  return strings;
}
