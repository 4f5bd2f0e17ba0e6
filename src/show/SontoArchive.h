#pragma once
// The keyed archive of a workspace file as UTF-8 JSON: objects carry "$class",
// bytes are {"$data": base64}, sizes [width, height], colours [r, g, b, a], and
// dictionaries keyed by number use decimal strings. Numbers are written in the
// shortest form that parses back to the same bits. Reading is our own parser, so
// that a hostile file meets hard limits on size, depth and count before anything
// is built from it. Any thread; no shared state.

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace SontoArchive {

struct Limits {
  size_t maxDocumentBytes = size_t{256} << 20;
  size_t maxStringBytes = size_t{64} << 20;  // after unescaping
  int maxDepth = 64;                         // nested objects and arrays
  size_t maxValues = size_t{8} << 20;        // every value of the document
};

// Compact JSON of one value. Non-finite numbers, which JSON cannot hold, are null.
QByteArray encode(const QJsonValue& value);
// An object whose keys come out in the given order (the root of a document).
QByteArray encodeOrdered(const std::vector<std::pair<QString, QJsonValue>>& members);

// The object of a document, or null with the reason in `error` (offset included).
// Strings that are not valid Unicode are repaired with U+FFFD; `repaired` gets the
// place of each such string ("carts[0].cues.3.name").
std::optional<QJsonObject> decodeObject(const QByteArray& data, std::string* error = nullptr,
                                        const Limits& limits = Limits(),
                                        std::vector<std::string>* repaired = nullptr);
std::optional<QJsonValue> decode(const QByteArray& data, std::string* error = nullptr,
                                 const Limits& limits = Limits(), std::vector<std::string>* repaired = nullptr);

// Bytes as {"$data": "<base64>"}; null for anything else or invalid base64.
QJsonObject dataObject(const QByteArray& data);
std::optional<QByteArray> dataFromValue(const QJsonValue& value);

// [width, height], floats widened exactly.
QJsonArray sizeArray(float width, float height);
std::optional<std::pair<float, float>> sizeFromValue(const QJsonValue& value);

// [red, green, blue, alpha] device RGB.
QJsonArray colorArray(double red, double green, double blue, double alpha);
std::optional<std::vector<double>> colorFromValue(const QJsonValue& value);

// Keys of number-keyed dictionaries: plain decimal, no sign, no leading zeros.
QString keyForIndex(unsigned long index);
std::optional<unsigned long> indexForKey(const QString& key);

// The "$class" of an object, empty when it has none.
QString className(const QJsonValue& value);

// Typed reads that answer the fallback for a missing key or a value of the wrong type.
QString stringValue(const QJsonObject& object, const char* key, const QString& fallback = QString());
bool boolValue(const QJsonObject& object, const char* key, bool fallback = false);
std::optional<double> numberValue(const QJsonObject& object, const char* key);

// A linear level read from a file, held to what the interface can set: 0 (silence)
// to 1 (0 dB). A level outside is logged once under `field` and noted in `notes`.
float boundedLevel(double value, const std::string& field, std::vector<std::string>* notes = nullptr);

}  // namespace SontoArchive
