#pragma once
// One finding of the safety check: a cue that would go wrong in the show, and why.
// A concern refers to its cues without keeping them: the list is rebuilt after every
// edit, and a cue deleted in between reads as gone (its texts become empty).
// Main thread.

#include <memory>
#include <set>
#include <string>
#include <vector>

class Cart;
class Cue;

class SafetyConcern {
 public:
  enum Type : int {
    kSameMIDITrigger = 1,
    kSameHotkey = 2,
    kBroken = 3,
    kOutsideOfGrid = 4,
    kWorkspaceHotkey = 5,
    // Two different trigger records that still answer the same note-on: the note is
    // all that a cue compares.
    kSameMIDINote = 6,
    // The key of the panic in every window, which a cue's letter would shadow.
    kPanicHotkey = 7,
  };

  // What a key press on Escape gives as a cue shortcut.
  static constexpr const char* kPanicShortcut = "\x1b";

  SafetyConcern(const std::shared_ptr<Cue>& cue, int concernType, const std::shared_ptr<Cue>& otherCue = nullptr);

  std::shared_ptr<Cue> cue() const { return m_cue.lock(); }
  std::shared_ptr<Cue> otherCue() const { return m_otherCue.lock(); }
  int concernType() const { return m_concernType; }
  // The text of the warning column.
  std::string description() const;

  // Over one cart only: a clash across carts is none, since only the visible cart's
  // keys fire. Each pair of cues is looked at once, so a pair gives one concern, held
  // by the earlier cue. `reserved` are the display strings of the workspace's keys.
  static std::vector<SafetyConcern> potentialCueProblems(const Cart& cart, const std::set<std::string>& reserved);
  // Every cart's concerns, cart after cart in the given order.
  static std::vector<SafetyConcern> brokenOrFlaggedCues(const std::vector<std::shared_ptr<Cart>>& carts);

 private:
  std::weak_ptr<Cue> m_cue;
  std::weak_ptr<Cue> m_otherCue;
  int m_concernType;
};
