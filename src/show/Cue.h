#pragma once
// The playable item of a cart. AudioCue is the one concrete kind. Main thread,
// except that a save reads the records from its own thread.

#include <QByteArray>
#include <QObject>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "show/SontoMIDIMessage.h"

class Cart;
class KyoAudioDevice;
class KyoEffect;

class Cue : public QObject {
  Q_OBJECT

 public:
  Cue();
  ~Cue() override;

  static std::string typeName() { return "Cue"; }
  virtual std::string type() const { return typeName(); }
  virtual std::string defaultName() const { return {}; }
  virtual bool isBroken() const { return false; }
  virtual std::string brokenExplanation() const { return {}; }

  Cart* cart() const { return m_cart; }
  void setCart(Cart* cart) { m_cart = cart; }  // a plain back reference
  const std::string& name() const { return m_name; }
  void setName(const std::string& name);
  bool flagged() const { return m_flagged; }
  void setFlagged(bool flagged);

  // The public index in the cart as text.
  std::string number() const;
  // The name, else the default name, else "(Untitled <type> Cue)".
  std::string displayName() const;
  std::string listName() const;
  virtual std::string description() const;

  // What a cart asks of every cue; a kind of cue answers for itself.
  virtual const std::string& hotkey() const;
  // The captured MIDI message that fires the cue, and its note; empty when none.
  virtual const QByteArray& midiTrigger() const;
  virtual std::optional<int> midiNote() const { return std::nullopt; }
  virtual bool isDead() const { return false; }
  virtual void setDead(bool dead) {}
  virtual std::string file() const { return {}; }
  virtual bool matchesForMIDIDown(const SontoMIDIMessage& message) const { return false; }
  virtual bool matchesForMIDIUp(const SontoMIDIMessage& message) const { return false; }
  virtual void handleMIDIMessages(const std::vector<SontoMIDIMessage>& messages) {}
  virtual std::shared_ptr<Cue> copy() const = 0;

  // Transport, driven by triggers, the cart's bulk operations and the workspace.
  // The record alone does nothing on them; the playing kind of cue overrides them.
  virtual void trigger() { triggerDown(); }
  virtual void triggerDown() {}
  virtual void triggerUp() {}
  virtual void play() {}
  virtual void pause() {}
  virtual void resume() {}
  virtual void stop() {}
  virtual void hardStop() {}
  virtual void duck() {}
  virtual void unduck() {}
  virtual void addEffect(const std::shared_ptr<KyoEffect>& effect) {}
  virtual void removeEffect(const std::shared_ptr<KyoEffect>& effect) {}
  virtual void setAudioDevice(std::shared_ptr<KyoAudioDevice> device) {}

  bool isPanicking() const { return _isActionPanicking(); }
  void panic();

 signals:
  void nameChanged();
  void flaggedChanged();

 protected:
  virtual bool _isActionPanicking() const { return false; }
  virtual void _panicAction();

 private:
  Cart* m_cart = nullptr;
  std::string m_name;
  bool m_flagged = false;
};
