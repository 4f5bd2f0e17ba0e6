#include "show/SafetyConcern.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include "foundation/KyoClock.h"
#include "show/Workspace.h"

#include "show/ShowTestSupport.h"
#include "support/TestFiles.h"

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

// A show saved and then damaged by hand, as it would be found on a disk: one line per
// concern, the same in JSON, and the exit status says whether there was anything.
TEST(CheckCommand, HandMadeShowGivesOneLinePerConcern) {
  const std::string binary = sonto::test::sontoBinary();
  if (binary.empty()) GTEST_SKIP() << "the sonto binary is not built beside the tests";
  setenv("XDG_CACHE_HOME", sonto::test::temporaryPath("cache").c_str(), 1);
  const std::string folder = makeFolder("check-command");
  const std::string show = folder + "/Show.sonto", clean = folder + "/Clean.sonto";
  {
    showtest::VirtualTime time;
    showtest::EngineSources sources;
    showtest::OfflineDevice device(2, 48000, 256);
    Workspace workspace(device.device);
    auto cart = std::make_shared<Cart>();
    cart->setName("Act 1");
    workspace.addCart(cart);
    const std::vector<std::pair<std::string, std::string>> cues = {
        {"Intro", "1"}, {"Outro", "1"}, {"Gone", "2"}, {"Edge", "["}};
    for (size_t i = 0; i < cues.size(); ++i) {
      auto made = AudioCue::createWithFile(showtest::rampFile(cues[i].first + ".wav", 48000, 2, 4800), device.device);
      made->setName(cues[i].first);
      made->setHotkey(cues[i].second);
      cart->setCue(made, i);
      made->setCart(cart.get());
    }
    SavingError error;
    ASSERT_TRUE(workspace.writeToURL(urlOf(show), &error)) << error.message;
    cart->removeCueAtIndex(1);
    static_cast<AudioCue*>(cart->cueAtIndex(3))->setHotkey("3");
    ASSERT_TRUE(workspace.writeToURL(urlOf(clean), &error)) << error.message;
    workspace.close();
    time.clock->settle();
  }
  // The third cue's file goes, and the grid loses the column of the fourth.
  ASSERT_EQ(sonto::test::run("rm '" + show + "'/Media/Gone*"), 0);
  std::string document = readBytes(show + "/document");
  const std::string size = "\"size\":[4,4]";
  ASSERT_NE(document.find(size), std::string::npos) << document;
  document.replace(document.find(size), size.size(), "\"size\":[3,4]");
  writeBytes(show + "/document", document);

  const std::string out = folder + "/out.txt";
  auto check = [&](const std::string& arguments) {
    return sonto::test::run("'" + binary + "' check " + arguments + " >'" + out + "' 2>/dev/null");
  };
  ASSERT_EQ(check("'" + show + "'"), 1);
  const std::string where = show + ": cart \"Act 1\", ";
  EXPECT_EQ(readBytes(out), where + "slot 1, cue \"Intro\": same hotkey trigger as Outro (Act 1)\n" + where +
                                "slot 3, cue \"Gone\": Invalid audio file.\n" + where +
                                "outside the grid, cue \"Edge\": outside of the current grid. Enlarge the grid to "
                                "find it.\n" +
                                where +
                                "outside the grid, cue \"Edge\": same hotkey trigger as a workspace action. See "
                                "workspace settings.\n");
  ASSERT_EQ(check("--json '" + clean + "' '" + show + "' '" + folder + "/none.sonto'"), 1);
  const QJsonArray shows =
      QJsonDocument::fromJson(QByteArray::fromStdString(readBytes(out))).object().value("shows").toArray();
  ASSERT_EQ(shows.size(), 3);
  EXPECT_TRUE(shows[0].toObject().value("concerns").toArray().isEmpty());
  std::vector<int> types;
  for (const auto& concern : shows[1].toObject().value("concerns").toArray())
    types.push_back(concern.toObject().value("type").toInt());
  EXPECT_EQ(types, (std::vector<int>{SafetyConcern::kSameHotkey, SafetyConcern::kBroken, SafetyConcern::kOutsideOfGrid,
                                     SafetyConcern::kWorkspaceHotkey}));
  EXPECT_FALSE(shows[2].toObject().value("opened").toBool());
  EXPECT_EQ(check("'" + clean + "'"), 0) << readBytes(out);
  EXPECT_EQ(check("--jason '" + clean + "'"), 2);
  EXPECT_EQ(check("--json"), 2);
}
