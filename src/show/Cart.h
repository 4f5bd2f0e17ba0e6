#pragma once
// One page of cues: a grid of at most five columns by five rows. Cues are kept by
// internal index, a slot on a fixed board five wide (row * 5 + column), so that a
// cue keeps its place when the width changes; everything outside the cart speaks
// public index, the cell's number in the present grid (row * width + column).
// Main thread, except that a save reads it from its own thread.

#include <QJsonObject>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "show/Cue.h"
#include "show/SontoMIDIMessage.h"

class SontoLogger;

// What a cart and its cues need of their workspace.
class CartWorkspace {
 public:
  virtual ~CartWorkspace() = default;
  virtual SontoLogger* logger() = 0;
  // Seconds of a cue's panic fade; 0 cuts at once.
  virtual float panicDuration() { return 1.0f; }
  // The display strings of the workspace's own keys, which a cue's key would clash with.
  virtual std::set<std::string> reservedHotkeys() { return {}; }
};

struct CartSize {
  float width = 4.0f;   // columns
  float height = 4.0f;  // rows
  bool operator==(const CartSize&) const = default;
};

class Cart {
 public:
  // The "no index" answer.
  static constexpr unsigned long kNotFound = 0x7FFFFFFF;
  static constexpr const char* kArchiveClassName = "Sonto";
  static constexpr const char* kOutsideWarning =
      "Warning: At least one cue is outside of the grid. Change grid to find it.";

  Cart();
  ~Cart();
  Cart(const Cart&) = delete;
  Cart& operator=(const Cart&) = delete;

  CartWorkspace* workspace() const { return m_workspace; }
  void setWorkspace(CartWorkspace* workspace) { m_workspace = workspace; }  // plain back reference
  const std::string& name() const { return m_name; }
  void setName(const std::string& name) { m_name = name; }
  CartSize size() const { return m_size; }
  // Cues that fall outside go dead and silent, those inside come back; none moves.
  void setSize(CartSize size);
  const std::map<unsigned long, std::shared_ptr<Cue>>& cues() const { return m_cues; }

  unsigned long internalIndexForIndex(unsigned long index) const;
  unsigned long indexForInternalIndex(unsigned long internalIndex) const;
  bool isInternalIndexOutsideOfGrid(unsigned long internalIndex) const;

  Cue* cueAtIndex(unsigned long index) const;
  Cue* cueAtInternalIndex(unsigned long internalIndex) const;
  std::shared_ptr<Cue> sharedCueAtIndex(unsigned long index) const;
  void setCue(std::shared_ptr<Cue> cue, unsigned long index);
  void removeCueAtIndex(unsigned long index);
  void removeCueAtInternalIndex(unsigned long internalIndex);
  void removeCue(const Cue* cue);
  unsigned long internalIndexOfCue(const Cue* cue) const;
  unsigned long indexOfCue(const Cue* cue) const;
  size_t count() const { return m_cues.size(); }
  bool isEmpty() const { return m_cues.empty(); }

  // Each sends one message to every cue, in key order.
  void pauseCues();
  void resumeCues();
  void playCues();
  void stopCues();
  void hardStopCues();
  void panicCues();
  void duckCues();
  void unduckCues();
  void addEffect(const std::shared_ptr<KyoEffect>& effect);
  void removeEffect(const std::shared_ptr<KyoEffect>& effect);
  void updateCuesWithAudioDevice(const std::shared_ptr<KyoAudioDevice>& device);

  // Every cue's hot key, empty ones and repeats included.
  std::vector<std::string> shortcuts() const;
  // The board's letter for a public index of the present grid; empty outside the board.
  static std::string defaultHotkeyForInternalIndex(unsigned long internalIndex);
  std::string defaultHotkeyForIndex(unsigned long index) const;
  void triggerDownWithShortcut(const std::string& shortcut);
  void triggerUpWithShortcut(const std::string& shortcut);
  std::vector<std::shared_ptr<Cue>> cuesWithShortcut(const std::string& shortcut) const;
  std::vector<std::shared_ptr<Cue>> cuesWithDownMIDI(const SontoMIDIMessage& message) const;
  std::vector<std::shared_ptr<Cue>> cuesWithUpMIDI(const SontoMIDIMessage& message) const;
  void processMIDIMessages(const std::vector<SontoMIDIMessage>& messages);
  // "<name> (<file name>)" in the workspace's log.
  void logPlayOfCue(const Cue& cue);

  // The cues are copied and put back by their keys taken as public indices, so a
  // copy narrower than five moves them.
  std::unique_ptr<Cart> copy() const;

  std::string description() const;

  // {"$class": "Sonto", "cues": {"<internal index>": cue}, "size": [w, h], "name": ...}
  // Cues are written with the given writer (the workspace file decides their form).
  QJsonObject archive(const std::function<QJsonObject(const Cue&)>& writeCue) const;
  // Keys that are not whole numbers up to the board's end and cues the reader
  // refuses are skipped; a zero size reads as 5 by 4.
  static std::unique_ptr<Cart> fromArchive(const QJsonObject& archive,
                                           const std::function<std::shared_ptr<Cue>(const QJsonObject&)>& readCue);

 private:
  template <typename F>
  void forEachCue(F f) const;

  CartWorkspace* m_workspace = nullptr;
  std::map<unsigned long, std::shared_ptr<Cue>> m_cues;
  std::string m_name;
  CartSize m_size;
};
