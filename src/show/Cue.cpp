#include "show/Cue.h"

#include <cstdio>

#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"
#include "show/Cart.h"

Cue::Cue() = default;
Cue::~Cue() = default;

void Cue::setName(const std::string& name) {
  m_name = name;
  emit nameChanged();
}

void Cue::setFlagged(bool flagged) {
  m_flagged = flagged;
  emit flaggedChanged();
}

std::string Cue::number() const {
  const unsigned long index = m_cart ? m_cart->indexOfCue(this) : Cart::kNotFound;
  return std::to_string(static_cast<long>(index));
}

std::string Cue::displayName() const {
  if (!m_name.empty()) return m_name;
  const std::string fallback = defaultName();
  if (!fallback.empty()) return fallback;
  return "(Untitled " + type() + " Cue)";
}

std::string Cue::listName() const { return m_name.empty() ? defaultName() : m_name; }

std::string Cue::description() const {
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
  // Appended, not "<" + type(): GCC 12 at -O3 takes that for an overlapping copy.
  std::string text = "<";
  text += type();
  text += ": ";
  text += address;
  text += ">";
  return text;
}

const std::string& Cue::hotkey() const {
  static const std::string none;
  return none;
}

const QByteArray& Cue::midiTrigger() const {
  static const QByteArray none;
  return none;
}

void Cue::panic() {
  KYO_LOG_AT(3, "   panic %s", description().c_str());
  _panicAction();
}

void Cue::_panicAction() { KyoLog("no panic action"); }
