#include "show/SontoArchive.h"

#include <QCborValue>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "foundation/KyoLog.h"

namespace SontoArchive {

namespace {

void appendString(QByteArray& out, const QString& string) {
  const QByteArray utf8 = string.toUtf8();
  out.append('"');
  for (const char c : utf8) {
    const auto u = static_cast<unsigned char>(c);
    switch (c) {
      case '"': out.append("\\\""); break;
      case '\\': out.append("\\\\"); break;
      case '\n': out.append("\\n"); break;
      case '\r': out.append("\\r"); break;
      case '\t': out.append("\\t"); break;
      case '\b': out.append("\\b"); break;
      case '\f': out.append("\\f"); break;
      default:
        if (u < 0x20) {
          char escape[8];
          std::snprintf(escape, sizeof escape, "\\u%04x", u);
          out.append(escape);
        } else {
          out.append(c);
        }
    }
  }
  out.append('"');
}

void appendNumber(QByteArray& out, const QJsonValue& value) {
  // Whole numbers held as integers (counts, channels) stay integers.
  const QCborValue cbor = QCborValue::fromJsonValue(value);
  if (cbor.isInteger() && !std::signbit(value.toDouble())) {
    out.append(QByteArray::number(cbor.toInteger()));
    return;
  }
  const double d = value.toDouble();
  if (!std::isfinite(d)) {
    out.append("null");
    return;
  }
  // Shortest text that reads back to the same bits; "-0" keeps the sign.
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
  out.append(buffer, static_cast<qsizetype>(result.ptr - buffer));
}

void appendValue(QByteArray& out, const QJsonValue& value) {
  switch (value.type()) {
    case QJsonValue::Null:
    case QJsonValue::Undefined: out.append("null"); break;
    case QJsonValue::Bool: out.append(value.toBool() ? "true" : "false"); break;
    case QJsonValue::Double: appendNumber(out, value); break;
    case QJsonValue::String: appendString(out, value.toString()); break;
    case QJsonValue::Array: {
      out.append('[');
      bool first = true;
      for (const QJsonValue& element : value.toArray()) {
        if (!first) out.append(',');
        first = false;
        appendValue(out, element);
      }
      out.append(']');
      break;
    }
    case QJsonValue::Object: {
      const QJsonObject object = value.toObject();
      out.append('{');
      bool first = true;
      for (auto it = object.begin(); it != object.end(); ++it) {
        if (!first) out.append(',');
        first = false;
        appendString(out, it.key());
        out.append(':');
        appendValue(out, it.value());
      }
      out.append('}');
      break;
    }
  }
}

constexpr const char* kReplacementCharacter = "\xEF\xBF\xBD";  // U+FFFD in UTF-8

// Recursive descent over the bytes; the depth limit bounds the recursion.
class Parser {
 public:
  Parser(const QByteArray& data, const Limits& limits, std::vector<std::string>* repaired)
      : m_begin(data.constData()),
        m_p(data.constData()),
        m_end(data.constData() + data.size()),
        m_limits(limits),
        m_repaired(repaired) {}

  std::optional<QJsonValue> parseDocument() {
    skipSpace();
    QJsonValue value;
    if (!parseValue(value, 0)) return std::nullopt;
    skipSpace();
    if (m_p != m_end) return fail("trailing characters after the document");
    return value;
  }

  const std::string& error() const { return m_error; }

 private:
  std::nullopt_t fail(const char* what) {
    if (m_error.empty()) m_error = std::string(what) + " at byte " + std::to_string(m_p - m_begin);
    return std::nullopt;
  }

  void skipSpace() {
    while (m_p < m_end && (*m_p == ' ' || *m_p == '\t' || *m_p == '\n' || *m_p == '\r')) ++m_p;
  }

  bool literal(const char* word) {
    const size_t n = std::strlen(word);
    if (static_cast<size_t>(m_end - m_p) < n || std::memcmp(m_p, word, n) != 0) return false;
    m_p += n;
    return true;
  }

  bool parseValue(QJsonValue& value, int depth) {
    if (++m_values > m_limits.maxValues) return fail("too many values"), false;
    if (m_p >= m_end) return fail("unexpected end of the document"), false;
    switch (*m_p) {
      case '{': return parseObject(value, depth + 1);
      case '[': return parseArray(value, depth + 1);
      case '"': {
        QString string;
        if (!parseString(string)) return false;
        value = string;
        return true;
      }
      case 't':
        if (!literal("true")) return fail("invalid literal"), false;
        value = true;
        return true;
      case 'f':
        if (!literal("false")) return fail("invalid literal"), false;
        value = false;
        return true;
      case 'n':
        if (!literal("null")) return fail("invalid literal"), false;
        value = QJsonValue(QJsonValue::Null);
        return true;
      default: return parseNumber(value);
    }
  }

  bool parseObject(QJsonValue& value, int depth) {
    if (depth > m_limits.maxDepth) return fail("nesting too deep"), false;
    ++m_p;
    QJsonObject object;
    skipSpace();
    if (m_p < m_end && *m_p == '}') {
      ++m_p;
      value = object;
      return true;
    }
    for (;;) {
      skipSpace();
      if (m_p >= m_end || *m_p != '"') return fail("expected a key"), false;
      QString key;
      if (!parseString(key, true)) return false;
      skipSpace();
      if (m_p >= m_end || *m_p != ':') return fail("expected ':'"), false;
      ++m_p;
      skipSpace();
      QJsonValue member;
      m_path.push_back({&key, 0});
      const bool parsed = parseValue(member, depth);
      m_path.pop_back();
      if (!parsed) return false;
      object.insert(key, member);
      skipSpace();
      if (m_p < m_end && *m_p == ',') {
        ++m_p;
        continue;
      }
      if (m_p < m_end && *m_p == '}') {
        ++m_p;
        value = object;
        return true;
      }
      return fail("expected ',' or '}'"), false;
    }
  }

  bool parseArray(QJsonValue& value, int depth) {
    if (depth > m_limits.maxDepth) return fail("nesting too deep"), false;
    ++m_p;
    QJsonArray array;
    skipSpace();
    if (m_p < m_end && *m_p == ']') {
      ++m_p;
      value = array;
      return true;
    }
    for (;;) {
      skipSpace();
      QJsonValue element;
      m_path.push_back({nullptr, array.size()});
      const bool parsed = parseValue(element, depth);
      m_path.pop_back();
      if (!parsed) return false;
      array.append(element);
      skipSpace();
      if (m_p < m_end && *m_p == ',') {
        ++m_p;
        continue;
      }
      if (m_p < m_end && *m_p == ']') {
        ++m_p;
        value = array;
        return true;
      }
      return fail("expected ',' or ']'"), false;
    }
  }

  bool hex4(uint32_t& out) {
    if (m_end - m_p < 4) return false;
    out = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = *m_p++;
      out <<= 4;
      if (c >= '0' && c <= '9') out |= static_cast<uint32_t>(c - '0');
      else if (c >= 'a' && c <= 'f') out |= static_cast<uint32_t>(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F') out |= static_cast<uint32_t>(c - 'A' + 10);
      else return false;
    }
    return true;
  }

  static void appendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }

  // Validates one UTF-8 sequence starting at m_p and copies it.
  bool copyUtf8(std::string& out) {
    const auto lead = static_cast<unsigned char>(*m_p);
    int length;
    uint32_t cp;
    if (lead < 0x80) {
      out.push_back(static_cast<char>(lead));
      ++m_p;
      return true;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, cp = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, cp = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, cp = lead & 0x07;
    } else {
      return false;
    }
    if (m_end - m_p < length) return false;
    for (int i = 1; i < length; ++i) {
      const auto c = static_cast<unsigned char>(m_p[i]);
      if ((c & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (c & 0x3F);
    }
    static constexpr uint32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMinimum[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    out.append(m_p, static_cast<size_t>(length));
    m_p += length;
    return true;
  }

  // Text that is not valid Unicode (bad UTF-8, a lone surrogate) comes out with
  // U+FFFD in its place and the string's place noted: one damaged name must not
  // cost a whole show.
  bool parseString(QString& result, bool isKey = false) {
    ++m_p;  // the opening quote
    std::string out;
    bool replaced = false;
    auto replace = [&] {
      out.append(kReplacementCharacter);
      replaced = true;
    };
    for (;;) {
      if (out.size() > m_limits.maxStringBytes) return fail("string too long"), false;
      if (m_p >= m_end) return fail("unterminated string"), false;
      const char c = *m_p;
      if (c == '"') {
        ++m_p;
        break;
      }
      if (static_cast<unsigned char>(c) < 0x20) return fail("control character in a string"), false;
      if (c != '\\') {
        if (!copyUtf8(out)) {
          replace();
          ++m_p;
        }
        continue;
      }
      ++m_p;
      if (m_p >= m_end) return fail("unterminated escape"), false;
      const char e = *m_p++;
      switch (e) {
        case '"': out.push_back('"'); break;
        case '\\': out.push_back('\\'); break;
        case '/': out.push_back('/'); break;
        case 'b': out.push_back('\b'); break;
        case 'f': out.push_back('\f'); break;
        case 'n': out.push_back('\n'); break;
        case 'r': out.push_back('\r'); break;
        case 't': out.push_back('\t'); break;
        case 'u': {
          uint32_t cp;
          if (!hex4(cp)) return fail("invalid \\u escape"), false;
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            // A high surrogate counts only with a low one after it; anything else
            // after it is read on its own.
            uint32_t low = 0;
            const char* next = m_p;
            if (m_end - m_p >= 6 && m_p[0] == '\\' && m_p[1] == 'u' && (m_p += 2, hex4(low)) && low >= 0xDC00 &&
                low <= 0xDFFF) {
              cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
            } else {
              m_p = next;
              replace();
              break;
            }
          } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            replace();
            break;
          }
          appendUtf8(out, cp);
          break;
        }
        default: return fail("invalid escape"), false;
      }
    }
    if (out.size() > m_limits.maxStringBytes) return fail("string too long"), false;
    result = QString::fromUtf8(out.data(), static_cast<qsizetype>(out.size()));
    if (replaced && m_repaired) m_repaired->push_back(pathText() + (isKey ? " (a key)" : ""));
    return true;
  }

  // Where the parser is, as "carts[0].cues.3.name".
  std::string pathText() const {
    std::string text;
    for (const auto& step : m_path) {
      if (step.key) {
        if (!text.empty()) text += '.';
        text += step.key->toStdString();
      } else {
        text += '[';
        text += std::to_string(step.index);
        text += ']';
      }
    }
    return text.empty() ? "the document" : text;
  }

  bool parseNumber(QJsonValue& value) {
    // JSON's grammar, checked here because from_chars is laxer ("1.", leading zeros).
    const char* start = m_p;
    const char* p = m_p;
    auto digit = [&](const char* q) { return q < m_end && *q >= '0' && *q <= '9'; };
    if (p < m_end && *p == '-') ++p;
    if (!digit(p)) return fail("invalid value"), false;
    bool integral = true;
    if (*p == '0') {
      ++p;
    } else {
      while (digit(p)) ++p;
    }
    if (p < m_end && *p == '.') {
      integral = false;
      ++p;
      if (!digit(p)) return fail("invalid number"), false;
      while (digit(p)) ++p;
    }
    if (p < m_end && (*p == 'e' || *p == 'E')) {
      integral = false;
      ++p;
      if (p < m_end && (*p == '+' || *p == '-')) ++p;
      if (!digit(p)) return fail("invalid number"), false;
      while (digit(p)) ++p;
    }
    if (integral) {
      int64_t n = 0;
      const auto r = std::from_chars(start, p, n);
      // "-0" goes on as a double so that the sign survives.
      if (r.ec == std::errc() && r.ptr == p && !(n == 0 && *start == '-')) {
        m_p = p;
        value = QJsonValue(static_cast<qint64>(n));
        return true;
      }
    }
    double d = 0.0;
    const auto r = std::from_chars(start, p, d);
    if (r.ec != std::errc() || r.ptr != p) return fail("number out of range"), false;
    m_p = p;
    value = d;
    return true;
  }

  const char* m_begin;
  const char* m_p;
  const char* m_end;
  const Limits& m_limits;
  std::vector<std::string>* m_repaired;
  struct Step {
    const QString* key;  // null for an element of an array
    qsizetype index;
  };
  std::vector<Step> m_path;
  size_t m_values = 0;
  std::string m_error;
};

}  // namespace

QByteArray encode(const QJsonValue& value) {
  QByteArray out;
  appendValue(out, value);
  return out;
}

QByteArray encodeOrdered(const std::vector<std::pair<QString, QJsonValue>>& members) {
  QByteArray out;
  out.append('{');
  bool first = true;
  for (const auto& [key, value] : members) {
    if (!first) out.append(',');
    first = false;
    appendString(out, key);
    out.append(':');
    appendValue(out, value);
  }
  out.append('}');
  return out;
}

std::optional<QJsonValue> decode(const QByteArray& data, std::string* error, const Limits& limits,
                                 std::vector<std::string>* repaired) {
  if (static_cast<size_t>(data.size()) > limits.maxDocumentBytes) {
    if (error) *error = "document of " + std::to_string(data.size()) + " bytes is too large";
    return std::nullopt;
  }
  Parser parser(data, limits, repaired);
  auto value = parser.parseDocument();
  if (!value && error) *error = parser.error();
  return value;
}

std::optional<QJsonObject> decodeObject(const QByteArray& data, std::string* error, const Limits& limits,
                                        std::vector<std::string>* repaired) {
  auto value = decode(data, error, limits, repaired);
  if (!value) return std::nullopt;
  if (!value->isObject()) {
    if (error) *error = "the document is not an object";
    return std::nullopt;
  }
  return value->toObject();
}

QJsonObject dataObject(const QByteArray& data) {
  QJsonObject object;
  object.insert(QStringLiteral("$data"), QString::fromLatin1(data.toBase64()));
  return object;
}

std::optional<QByteArray> dataFromValue(const QJsonValue& value) {
  if (!value.isObject()) return std::nullopt;
  const QJsonValue data = value.toObject().value(QStringLiteral("$data"));
  if (!data.isString()) return std::nullopt;
  auto result = QByteArray::fromBase64Encoding(data.toString().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
  if (!result) return std::nullopt;
  return *result;
}

QJsonArray sizeArray(float width, float height) {
  return QJsonArray{static_cast<double>(width), static_cast<double>(height)};
}

std::optional<std::pair<float, float>> sizeFromValue(const QJsonValue& value) {
  const QJsonArray a = value.toArray();
  if (a.size() != 2 || !a[0].isDouble() || !a[1].isDouble()) return std::nullopt;
  return std::pair{static_cast<float>(a[0].toDouble()), static_cast<float>(a[1].toDouble())};
}

QJsonArray colorArray(double red, double green, double blue, double alpha) {
  return QJsonArray{red, green, blue, alpha};
}

std::optional<std::vector<double>> colorFromValue(const QJsonValue& value) {
  const QJsonArray a = value.toArray();
  if (a.size() != 4) return std::nullopt;
  std::vector<double> components;
  for (const QJsonValue& v : a) {
    if (!v.isDouble()) return std::nullopt;
    components.push_back(v.toDouble());
  }
  return components;
}

QString keyForIndex(unsigned long index) { return QString::number(index); }

std::optional<unsigned long> indexForKey(const QString& key) {
  if (key.isEmpty() || key.size() > 19) return std::nullopt;
  if (key.size() > 1 && key[0] == u'0') return std::nullopt;
  unsigned long result = 0;
  for (const QChar c : key) {
    if (c < u'0' || c > u'9') return std::nullopt;
    result = result * 10 + static_cast<unsigned long>(c.unicode() - u'0');
  }
  return result;
}

QString className(const QJsonValue& value) {
  const QJsonValue name = value.toObject().value(QStringLiteral("$class"));
  return name.isString() ? name.toString() : QString();
}

QString stringValue(const QJsonObject& object, const char* key, const QString& fallback) {
  const QJsonValue v = object.value(QLatin1String(key));
  return v.isString() ? v.toString() : fallback;
}

bool boolValue(const QJsonObject& object, const char* key, bool fallback) {
  const QJsonValue v = object.value(QLatin1String(key));
  return v.isBool() ? v.toBool() : fallback;
}

std::optional<double> numberValue(const QJsonObject& object, const char* key) {
  const QJsonValue v = object.value(QLatin1String(key));
  if (!v.isDouble()) return std::nullopt;
  return v.toDouble();
}

float boundedLevel(double value, const std::string& field, std::vector<std::string>* notes) {
  if (value >= 0.0 && value <= 1.0) return static_cast<float>(value);
  const double bounded = value > 1.0 ? 1.0 : 0.0;  // NaN, which no file can hold, would go silent too
  char line[256];
  std::snprintf(line, sizeof line, "%s was %g, outside 0 to 1; it plays at %g", field.c_str(), value, bounded);
  KyoLog("%s", line);
  if (notes) notes->push_back(line);
  return static_cast<float>(bounded);
}

}  // namespace SontoArchive
