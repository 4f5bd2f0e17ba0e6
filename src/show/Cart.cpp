#include "show/Cart.h"

#include <QJsonArray>

#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "foundation/KyoLog.h"
#include "show/SontoLogger.h"

namespace {

// By internal index: the five keyboard rows in turn, so the top left corner of any
// grid gets "1" and a slot keeps its letter through a resize.
constexpr std::array<const char*, 25> kDefaultHotkeys = {
    "1", "2", "3", "4", "5", "Q", "W", "E", "R", "T", "A", "S", "D",
    "F", "G", "Z", "X", "C", "V", "B", "Y", "U", "I", "O", "P"};

constexpr unsigned long kBoardWidth = 5;
// One past the last slot; the index bound lets it through.
constexpr unsigned long kBoardEnd = 25;

bool isFullWidth(CartSize size) { return size.width == 5.0f && (size.height == 5.0f || size.height == 4.0f); }

}  // namespace

Cart::Cart() = default;

// A cart that goes away leaves nothing sounding.
Cart::~Cart() { hardStopCues(); }

template <typename F>
void Cart::forEachCue(F f) const {
  // A copy, so that a cue's work may change the cart under the loop.
  std::vector<std::shared_ptr<Cue>> cues;
  cues.reserve(m_cues.size());
  for (const auto& [key, cue] : m_cues) cues.push_back(cue);
  for (const auto& cue : cues) f(*cue);
}

unsigned long Cart::internalIndexForIndex(unsigned long index) const {
  if (index > kBoardEnd) return kNotFound;
  if (isFullWidth(m_size)) return index;
  if (!(m_size.width > 0.0f)) return kNotFound;
  const float row = std::floor(static_cast<float>(index) / m_size.width);
  if (row == 0.0f) return index;
  return static_cast<unsigned long>(static_cast<float>(index) + row * (5.0f - m_size.width));
}

unsigned long Cart::indexForInternalIndex(unsigned long internalIndex) const {
  if (internalIndex > kBoardEnd) return kNotFound;
  if (isFullWidth(m_size)) return internalIndex;
  if (internalIndex < kBoardWidth) {
    return m_size.width > static_cast<float>(internalIndex) ? internalIndex : kNotFound;
  }
  // The column is not looked at: a cue beyond the right edge is dead and hidden.
  const float row = static_cast<float>(internalIndex / kBoardWidth);
  return static_cast<unsigned long>(static_cast<float>(internalIndex) - row * (5.0f - m_size.width));
}

bool Cart::isInternalIndexOutsideOfGrid(unsigned long internalIndex) const {
  return static_cast<float>(internalIndex / kBoardWidth) >= m_size.height ||
         static_cast<float>(internalIndex % kBoardWidth) >= m_size.width;
}

void Cart::setSize(CartSize size) {
  if (size == m_size) return;
  if (size.width == 0.0f && size.height == 0.0f) {
    KyoLog("Cart size cannot be {0, 0}");
    return;
  }
  m_size = size;
  bool warned = false;
  for (const auto& [key, cue] : m_cues) {
    const bool outside = isInternalIndexOutsideOfGrid(key);
    if (outside) {
      if (!warned && m_workspace && m_workspace->logger()) m_workspace->logger()->appendLog(kOutsideWarning);
      warned = true;
      cue->hardStop();
    }
    cue->setDead(outside);
  }
}

Cue* Cart::cueAtInternalIndex(unsigned long internalIndex) const {
  auto it = m_cues.find(internalIndex);
  return it == m_cues.end() ? nullptr : it->second.get();
}

Cue* Cart::cueAtIndex(unsigned long index) const { return cueAtInternalIndex(internalIndexForIndex(index)); }

std::shared_ptr<Cue> Cart::sharedCueAtIndex(unsigned long index) const {
  auto it = m_cues.find(internalIndexForIndex(index));
  return it == m_cues.end() ? nullptr : it->second;
}

void Cart::setCue(std::shared_ptr<Cue> cue, unsigned long index) {
  const unsigned long internalIndex = internalIndexForIndex(index);
  if (!cue || internalIndex == kNotFound) {
    KyoLog("Cart cannot hold a cue at index %lu", index);
    return;
  }
  cue->setCart(this);
  m_cues[internalIndex] = std::move(cue);
}

void Cart::removeCueAtIndex(unsigned long index) { removeCueAtInternalIndex(internalIndexForIndex(index)); }

// The look-up takes the internal index as a public one, so below width 5 it may stop
// and detach the cue of another slot; the callers stop their cue beforehand.
void Cart::removeCueAtInternalIndex(unsigned long internalIndex) {
  if (auto cue = sharedCueAtIndex(internalIndex)) {
    cue->hardStop();
    cue->setCart(nullptr);
  }
  m_cues.erase(internalIndex);
}

void Cart::removeCue(const Cue* cue) {
  const unsigned long internalIndex = internalIndexOfCue(cue);
  if (internalIndex != kNotFound) removeCueAtInternalIndex(internalIndex);
}

unsigned long Cart::internalIndexOfCue(const Cue* cue) const {
  for (const auto& [key, value] : m_cues) {
    if (value.get() == cue) return key;
  }
  return kNotFound;
}

unsigned long Cart::indexOfCue(const Cue* cue) const { return indexForInternalIndex(internalIndexOfCue(cue)); }

void Cart::pauseCues() { forEachCue([](Cue& c) { c.pause(); }); }
void Cart::resumeCues() { forEachCue([](Cue& c) { c.resume(); }); }
void Cart::playCues() { forEachCue([](Cue& c) { c.play(); }); }
void Cart::stopCues() { forEachCue([](Cue& c) { c.stop(); }); }
void Cart::hardStopCues() { forEachCue([](Cue& c) { c.hardStop(); }); }
void Cart::panicCues() { forEachCue([](Cue& c) { c.panic(); }); }
void Cart::duckCues() { forEachCue([](Cue& c) { c.duck(); }); }
void Cart::unduckCues() { forEachCue([](Cue& c) { c.unduck(); }); }

void Cart::addEffect(const std::shared_ptr<KyoEffect>& effect) {
  forEachCue([&](Cue& c) { c.addEffect(effect); });
}

void Cart::removeEffect(const std::shared_ptr<KyoEffect>& effect) {
  forEachCue([&](Cue& c) { c.removeEffect(effect); });
}

void Cart::updateCuesWithAudioDevice(const std::shared_ptr<KyoAudioDevice>& device) {
  forEachCue([&](Cue& c) { c.setAudioDevice(device); });
}

std::vector<std::string> Cart::shortcuts() const {
  std::vector<std::string> keys;
  for (const auto& [key, cue] : m_cues) keys.push_back(cue->hotkey());
  return keys;
}

std::string Cart::defaultHotkeyForInternalIndex(unsigned long internalIndex) {
  return internalIndex < kDefaultHotkeys.size() ? kDefaultHotkeys[internalIndex] : "";
}

std::string Cart::defaultHotkeyForIndex(unsigned long index) const {
  return defaultHotkeyForInternalIndex(internalIndexForIndex(index));
}

void Cart::triggerDownWithShortcut(const std::string& shortcut) {
  for (const auto& cue : cuesWithShortcut(shortcut)) cue->triggerDown();
}

void Cart::triggerUpWithShortcut(const std::string& shortcut) {
  for (const auto& cue : cuesWithShortcut(shortcut)) cue->triggerUp();
}

std::vector<std::shared_ptr<Cue>> Cart::cuesWithShortcut(const std::string& shortcut) const {
  std::vector<std::shared_ptr<Cue>> found;
  for (const auto& [key, cue] : m_cues) {
    if (cue->hotkey() == shortcut) found.push_back(cue);
  }
  return found;
}

std::vector<std::shared_ptr<Cue>> Cart::cuesWithDownMIDI(const SontoMIDIMessage& message) const {
  std::vector<std::shared_ptr<Cue>> found;
  for (const auto& [key, cue] : m_cues) {
    if (cue->matchesForMIDIDown(message)) found.push_back(cue);
  }
  return found;
}

std::vector<std::shared_ptr<Cue>> Cart::cuesWithUpMIDI(const SontoMIDIMessage& message) const {
  std::vector<std::shared_ptr<Cue>> found;
  for (const auto& [key, cue] : m_cues) {
    if (cue->matchesForMIDIUp(message)) found.push_back(cue);
  }
  return found;
}

void Cart::processMIDIMessages(const std::vector<SontoMIDIMessage>& messages) {
  forEachCue([&](Cue& c) { c.handleMIDIMessages(messages); });
}

void Cart::logPlayOfCue(const Cue& cue) {
  if (!m_workspace || !m_workspace->logger()) return;
  const std::string fileName = std::filesystem::path(cue.file()).filename().string();
  m_workspace->logger()->appendLog(cue.name() + " (" + fileName + ")");
}

std::unique_ptr<Cart> Cart::copy() const {
  auto cart = std::make_unique<Cart>();
  cart->setSize(m_size);
  cart->setName(m_name);
  for (const auto& [key, cue] : m_cues) cart->setCue(cue->copy(), key);
  return cart;
}

std::string Cart::description() const {
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
  return std::string("<Cart: ") + address + "> Cart: " + m_name + " - " + std::to_string(m_cues.size()) + " cues";
}

QJsonObject Cart::archive(const std::function<QJsonObject(const Cue&)>& writeCue) const {
  QJsonObject cues;
  for (const auto& [key, cue] : m_cues) cues.insert(QString::number(key), writeCue(*cue));
  QJsonObject o;
  o.insert("$class", kArchiveClassName);
  o.insert("cues", cues);
  o.insert("size", QJsonArray{static_cast<double>(m_size.width), static_cast<double>(m_size.height)});
  o.insert("name", QString::fromStdString(m_name));
  return o;
}

std::unique_ptr<Cart> Cart::fromArchive(const QJsonObject& archive,
                                        const std::function<std::shared_ptr<Cue>(const QJsonObject&)>& readCue) {
  auto cart = std::make_unique<Cart>();
  const QJsonObject cues = archive.value("cues").toObject();
  for (auto it = cues.begin(); it != cues.end(); ++it) {
    bool ok = false;
    const unsigned long key = it.key().toULong(&ok);
    if (!ok || key > kBoardEnd || !it.value().isObject()) {
      KyoLog("Skipping a cue stored under \"%s\"", it.key().toUtf8().constData());
      continue;
    }
    if (auto cue = readCue(it.value().toObject())) cart->m_cues[key] = std::move(cue);
  }
  const QJsonArray size = archive.value("size").toArray();
  CartSize decoded{0.0f, 0.0f};
  if (size.size() == 2 && size[0].isDouble() && size[1].isDouble()) {
    decoded = {static_cast<float>(size[0].toDouble()), static_cast<float>(size[1].toDouble())};
  }
  // Files from before carts had sizes.
  if (decoded.width == 0.0f && decoded.height == 0.0f) decoded = {5.0f, 4.0f};
  const auto inRange = [](float v) { return v > 0.0f && v <= 5.0f && v == std::floor(v); };
  if (!inRange(decoded.width) || !inRange(decoded.height)) {
    KyoLog("Cart size %g by %g is not a grid; using 5 by 4", decoded.width, decoded.height);
    decoded = {5.0f, 4.0f};
  }
  cart->m_size = decoded;
  if (archive.value("name").isString()) cart->m_name = archive.value("name").toString().toStdString();
  return cart;
}
