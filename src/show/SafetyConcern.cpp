#include "show/SafetyConcern.h"

#include "show/Cart.h"
#include "show/Cue.h"

SafetyConcern::SafetyConcern(const std::shared_ptr<Cue>& cue, int concernType, const std::shared_ptr<Cue>& otherCue)
    : m_cue(cue), m_otherCue(otherCue), m_concernType(concernType) {}

std::string SafetyConcern::description() const {
  const auto cue = m_cue.lock();
  if (!cue) return {};
  // "<what> <other cue> (<its cart>)<rest>"
  auto withOther = [this](const char* what, const char* rest = "") -> std::string {
    const auto other = m_otherCue.lock();
    if (!other) return {};
    const std::string cartName = other->cart() ? other->cart()->name() : std::string();
    return std::string(what) + " " + other->listName() + " (" + cartName + ")" + rest;
  };
  switch (m_concernType) {
    case kSameMIDITrigger: return withOther("same MIDI trigger as");
    case kSameHotkey: return withOther("same hotkey trigger as");
    case kBroken: return cue->brokenExplanation();
    case kOutsideOfGrid: return "outside of the current grid. Enlarge the grid to find it.";
    case kWorkspaceHotkey: return "same hotkey trigger as a workspace action. See workspace settings.";
    case kSameMIDINote: return withOther("same MIDI note as", ", with another trigger");
    case kPanicHotkey: return "same hotkey trigger as the panic key (Escape).";
    default: return {};
  }
}

std::vector<SafetyConcern> SafetyConcern::potentialCueProblems(const Cart& cart, const std::set<std::string>& reserved) {
  std::vector<SafetyConcern> results;
  const auto& cues = cart.cues();
  for (auto it = cues.begin(); it != cues.end(); ++it) {
    const auto& [key, cue] = *it;
    if (cue->isBroken()) results.emplace_back(cue, kBroken);
    if (cart.isInternalIndexOutsideOfGrid(key)) results.emplace_back(cue, kOutsideOfGrid);
    const std::string& hotkey = cue->hotkey();
    if (reserved.count(hotkey)) results.emplace_back(cue, kWorkspaceHotkey);
    if (hotkey == kPanicShortcut) results.emplace_back(cue, kPanicHotkey);
    const QByteArray& trigger = cue->midiTrigger();
    const auto note = cue->midiNote();
    // The cues after this one in key order are the ones not yet seen.
    for (auto other = std::next(it); other != cues.end(); ++other) {
      const auto& otherCue = other->second;
      // Two empty keys are equal here too: such cues answer no key, which is worth a word.
      if (hotkey == otherCue->hotkey()) results.emplace_back(cue, kSameHotkey, otherCue);
      if (!trigger.isEmpty() && trigger == otherCue->midiTrigger()) {
        results.emplace_back(cue, kSameMIDITrigger, otherCue);
      } else if (note && note == otherCue->midiNote()) {
        results.emplace_back(cue, kSameMIDINote, otherCue);
      }
    }
  }
  return results;
}

std::vector<SafetyConcern> SafetyConcern::brokenOrFlaggedCues(const std::vector<std::shared_ptr<Cart>>& carts) {
  std::vector<SafetyConcern> all;
  all.reserve(100);
  for (const auto& cart : carts) {
    CartWorkspace* workspace = cart->workspace();
    const auto concerns = potentialCueProblems(*cart, workspace ? workspace->reservedHotkeys() : std::set<std::string>());
    all.insert(all.end(), concerns.begin(), concerns.end());
  }
  return all;
}
