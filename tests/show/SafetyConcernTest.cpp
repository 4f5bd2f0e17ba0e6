#include "show/SafetyConcern.h"

#include <gtest/gtest.h>

#include "show/ShowTestSupport.h"

namespace {

// A cue whose brokenness the test decides; the check only asks.
class CheckedCue : public AudioCue {
 public:
  bool broken = false;
  bool isBroken() const override { return broken; }
  std::string brokenExplanation() const override { return broken ? "Invalid audio file." : ""; }
};

struct ReservingWorkspace : FakeWorkspace {
  std::set<std::string> keys;
  std::set<std::string> reservedHotkeys() override { return keys; }
};

std::shared_ptr<CheckedCue> cue(const std::string& name, const std::string& hotkey, int note = -1) {
  auto made = std::make_shared<CheckedCue>();
  made->setName(name);
  made->setHotkey(hotkey);
  if (note >= 0) made->setMidiNote(note);
  return made;
}

// "<cue>: <text>" for each concern, in order.
std::vector<std::string> lines(const std::vector<SafetyConcern>& concerns) {
  std::vector<std::string> out;
  for (const auto& c : concerns) out.push_back((c.cue() ? c.cue()->listName() : "?") + ": " + c.description());
  return out;
}

}  // namespace

// Every kind of concern, each pair once and held by the earlier cue, in key order.
TEST(SafetyConcern, EveryKindInOneCart) {
  ReservingWorkspace workspace;
  workspace.keys = {"[", "]", ","};  // pause, resume and duck as the settings show them
  Cart cart;
  cart.setWorkspace(&workspace);
  cart.setName("Act 1");
  cart.setSize({3, 3});
  cart.setCue(cue("Rain", "A"), 0);
  cart.setCue(cue("Wind", "A", 60), 1);
  cart.setCue(cue("Door", "A", 60), 2);  // same note, same record as Wind
  auto thunder = cue("Thunder", "B", 61);
  cart.setCue(thunder, 3);
  auto bell = cue("Bell", "[", 62);
  bell->broken = true;
  cart.setCue(bell, 4);
  // Another record, note-off status, same note: a note-on of 61 still fires both.
  auto phone = cue("Phone", "C");
  phone->setMidiTrigger(QByteArray("\x80\x3d\x40", 3));
  cart.setCue(phone, 5);
  auto far = cue("Far", "\x1b");
  cart.setCue(far, 6);
  cart.setSize({2, 2});  // the third column (Door, Phone) and row (Far) fall outside

  EXPECT_EQ(lines(SafetyConcern::potentialCueProblems(cart, workspace.keys)),
            (std::vector<std::string>{
                "Rain: same hotkey trigger as Wind (Act 1)",
                "Rain: same hotkey trigger as Door (Act 1)",
                "Wind: same hotkey trigger as Door (Act 1)",
                "Wind: same MIDI trigger as Door (Act 1)",
                "Door: outside of the current grid. Enlarge the grid to find it.",
                "Thunder: same MIDI note as Phone (Act 1), with another trigger",
                "Bell: Invalid audio file.",
                "Bell: same hotkey trigger as a workspace action. See workspace settings.",
                "Phone: outside of the current grid. Enlarge the grid to find it.",
                "Far: outside of the current grid. Enlarge the grid to find it.",
                "Far: same hotkey trigger as the panic key (Escape).",
            }));
  // The workspace's list is the same, cart by cart; a clash across carts is none.
  Cart other;
  other.setWorkspace(&workspace);
  other.setCue(cue("Rain again", "A", 60), 0);
  auto shared = [](Cart& c) { return std::shared_ptr<Cart>(&c, [](Cart*) {}); };
  EXPECT_EQ(SafetyConcern::brokenOrFlaggedCues({shared(cart), shared(other)}).size(), 11u);
}

// The quirks that stay: empty keys count as equal, a modified key never equals a
// letter, and a concern whose other cue has gone says nothing rather than dangling.
TEST(SafetyConcern, EmptyKeysModifiedKeysAndGoneCues) {
  Cart cart;
  cart.setCue(cue("One", ""), 0);
  cart.setCue(cue("Two", ""), 1);
  cart.setCue(cue("Three", "P"), 2);
  const auto concerns = SafetyConcern::potentialCueProblems(cart, {"\xE2\x8C\x98P"});  // Command-P
  ASSERT_EQ(lines(concerns), (std::vector<std::string>{"One: same hotkey trigger as Two ()"}));
  cart.removeCueAtIndex(1);
  EXPECT_EQ(concerns[0].description(), "");
  EXPECT_TRUE(SafetyConcern::potentialCueProblems(Cart(), {}).empty());
}
