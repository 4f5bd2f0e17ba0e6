#pragma once
// Text helpers of the whole system: the one time notation (mm:ss.ff, hours when
// present), UUIDs, IPv4 dot notation, the ellipsis truncation of labels and the
// MIDI Show Control field readers. Strings are UTF-8.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

// Times in seconds as [-][h:]mm:ss[.f...]. Defaults: 2 places, no hours unless they
// are not zero, negative times shown as zero. Above one year the text stays at one
// year. decimalPlaces is taken between 0 and 9.
std::string stringByFormattingSeconds(double seconds);
std::string stringByFormattingSeconds(double seconds, int decimalPlaces);
std::string stringByFormattingSeconds(double seconds, int decimalPlaces, bool showHours);
std::string stringByFormattingSeconds(double seconds, int decimalPlaces, bool showHours, bool forcePositive);

// Reads the notation back: up to three ":"-separated parts (hours, minutes,
// seconds) from the right; a leading "-" negates the whole. Parts that are not
// numbers read as 0, so the answer is never an error.
double secondsFromFormattedString(const std::string& text);

// A new random UUID, upper-case, 8-4-4-4-12 hex digits.
std::string stringUUID();

// "a.b.c.d", highest byte first.
std::string addressInDotNotation(uint32_t address);
// The inverse; anything that is not four parts with a first part above 0 logs and
// answers 0.
uint32_t addressFromDotNotation(const std::string& text);

// U+2026 as UTF-8.
const std::string& ellipsis();
// At most limit characters (code points): a longer text keeps its first limit - 1
// characters and ends in the ellipsis. A limit of 0 gives the empty string.
std::string stringWithEllipsisByTruncatingToLength(const std::string& text, size_t limit);
// Length in code points, as the truncation counts.
size_t KyoCharacterCount(const std::string& text);

// Fields of a MIDI Show Control cue: digits and "." only.
struct KyoMSCStrings {
  std::string Q_number;
  std::string Q_list;
  std::string Q_path;
};
// Up to three zero-separated fields: number, list, path. Null bytes or a zero
// length give nothing; other bytes than digits and "." are logged and skipped.
std::optional<KyoMSCStrings> stringsFromMSCByteDataRepresentingNumberListPath(const uint8_t* bytes,
                                                                              size_t length);
// One field, the list.
std::optional<KyoMSCStrings> stringsFromMSCByteDataRepresentingList(const uint8_t* bytes, size_t length);

// Leading integer of a text, as a cocoa string reads one: leading blanks, an
// optional sign, digits; none gives 0; clamped to int.
int KyoIntValue(const std::string& text);
// Leading decimal number of a text in the C notation (point as separator, optional
// exponent); none gives 0.0. Never inf or nan.
double KyoDoubleValue(const std::string& text);
