#include "show/Cart.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include "show/ShowTestSupport.h"

namespace {

constexpr unsigned long NF = Cart::kNotFound;

std::unique_ptr<Cart> cartOfSize(float width, float height) {
  auto cart = std::make_unique<Cart>();
  cart->setSize({width, height});
  return cart;
}

}  // namespace

TEST(Cart, NewCartDefaults) {
  Cart cart;
  EXPECT_EQ(cart.size(), (CartSize{4, 4}));
  EXPECT_TRUE(cart.isEmpty());
  EXPECT_EQ(cart.name(), "");
  EXPECT_TRUE(cart.shortcuts().empty());
  EXPECT_EQ(cart.cueAtIndex(0), nullptr);
}

TEST(Cart, IndexConversionsAcrossWidths) {
  struct Case {
    float width, height;
    unsigned long index, internal;  // public to internal
  };
  const std::vector<Case> forward = {
      {3, 3, 0, 0},   {3, 3, 2, 2},   {3, 3, 3, 5},   {3, 3, 8, 12},  {4, 4, 4, 5},    {4, 4, 15, 18},
      {5, 5, 24, 24}, {5, 4, 19, 19}, {5, 5, 25, 25}, {5, 5, 26, NF},  {1, 5, 4, 20},   {2, 2, 3, 6},
      {4, 4, 25, 31}, {3, 3, 26, NF}, {5, 3, 14, 14}, {5, 3, 25, 25},
  };
  for (const Case& c : forward) {
    auto cart = cartOfSize(c.width, c.height);
    EXPECT_EQ(cart->internalIndexForIndex(c.index), c.internal) << c.width << "x" << c.height << " public " << c.index;
  }
  const std::vector<Case> backward = {
      // internal to public, written in the same fields
      {3, 3, 0, 0},   {3, 3, 2, 2},   {3, 3, NF, 3},  {3, 3, 3, 5},  {3, 3, 8, 12}, {5, 5, 25, 25},
      {4, 4, 15, 18}, {4, 4, NF, 4},  {5, 4, 24, 24}, {5, 4, NF, 26},
      // beyond the right edge on a lower row: some other cell's number, never looked at
      {3, 3, 7, 9},
  };
  for (const Case& c : backward) {
    auto cart = cartOfSize(c.width, c.height);
    EXPECT_EQ(cart->indexForInternalIndex(c.internal), c.index) << c.width << "x" << c.height << " internal "
                                                                << c.internal;
  }
  auto cart = cartOfSize(3, 2);
  for (unsigned long k = 0; k < 25; ++k) {
    EXPECT_EQ(cart->isInternalIndexOutsideOfGrid(k), k / 5 >= 2 || k % 5 >= 3) << k;
  }
}

TEST(Cart, DefaultHotkeysFollowTheBoard) {
  auto narrow = cartOfSize(3, 3);
  EXPECT_EQ(narrow->defaultHotkeyForIndex(0), "1");
  EXPECT_EQ(narrow->defaultHotkeyForIndex(3), "Q") << "first cell of the second row";
  EXPECT_EQ(narrow->defaultHotkeyForIndex(8), "D");
  auto full = cartOfSize(5, 5);
  const std::string board = "12345QWERTASDFGZXCVBYUIOP";
  for (unsigned long i = 0; i < 25; ++i) EXPECT_EQ(full->defaultHotkeyForIndex(i), std::string(1, board[i]));
  EXPECT_EQ(full->defaultHotkeyForIndex(25), "") << "one past the board answers nothing, not garbage";
  EXPECT_EQ(full->defaultHotkeyForIndex(1000), "");
  EXPECT_EQ(cartOfSize(4, 4)->defaultHotkeyForIndex(25), "");
}

TEST(Cart, ResizeKillsAndRevivesWithOneWarning) {
  FakeWorkspace workspace;
  auto cart = cartOfSize(5, 5);
  cart->setWorkspace(&workspace);
  std::vector<std::shared_ptr<CountingCue>> cues;
  for (unsigned long i = 0; i < 25; ++i) {
    cues.push_back(countingCue("cue " + std::to_string(i)));
    cart->setCue(cues.back(), i);
  }
  cart->setSize({3, 3});
  ASSERT_EQ(workspace.log.log().size(), 1u) << "one warning however many cues fall outside";
  EXPECT_NE(workspace.log.log()[0].find(Cart::kOutsideWarning), std::string::npos);
  for (unsigned long k = 0; k < 25; ++k) {
    const bool outside = k / 5 >= 3 || k % 5 >= 3;
    EXPECT_EQ(cues[k]->isDead(), outside) << k;
    EXPECT_EQ(cues[k]->hardStops, outside ? 1 : 0) << k;
    EXPECT_EQ(cart->cueAtInternalIndex(k), cues[k].get()) << "nothing moves";
  }
  EXPECT_EQ(cart->count(), 25u);
  EXPECT_EQ(cart->cueAtIndex(3), cues[5].get());

  cart->setSize({3, 3});
  EXPECT_EQ(workspace.log.log().size(), 1u) << "the same size logs nothing";
  cart->setSize({5, 5});
  EXPECT_EQ(workspace.log.log().size(), 1u) << "growing warns of nothing";
  for (const auto& cue : cues) EXPECT_FALSE(cue->isDead());
  EXPECT_EQ(cart->cueAtIndex(3), cues[3].get());

  // A resize that leaves every cue inside writes nothing either.
  cart->removeCueAtIndex(24);
  workspace.log.clearLog();
  cart->setSize({5, 4});
  EXPECT_EQ(workspace.log.log().size(), 1u) << "row 4 still has cues";
  EXPECT_FALSE(cart->isEmpty());
}

TEST(Cart, PutTakeAndRemove) {
  auto cart = cartOfSize(3, 3);
  auto a = countingCue("a");
  auto b = countingCue("b");
  cart->setCue(a, 3);
  EXPECT_EQ(a->cart(), cart.get());
  EXPECT_EQ(cart->internalIndexOfCue(a.get()), 5u);
  EXPECT_EQ(cart->indexOfCue(a.get()), 3u);
  EXPECT_EQ(a->number(), "3");
  EXPECT_EQ(cart->internalIndexOfCue(b.get()), NF);
  EXPECT_EQ(cart->indexOfCue(b.get()), NF);
  cart->setCue(b, 3);
  EXPECT_EQ(cart->count(), 1u) << "a slot holds one cue";
  EXPECT_EQ(cart->cueAtIndex(3), b.get());
  cart->setCue(nullptr, 1);
  {
    sonto::test::LogCapture log;
    cart->setCue(a, 10000);
    EXPECT_EQ(log.lines().size(), 1u);
  }
  EXPECT_EQ(cart->count(), 1u);

  // Below full width the removal's look-up misses (see the next test): the key goes,
  // the cue is neither stopped nor detached.
  cart->removeCue(b.get());
  EXPECT_TRUE(cart->isEmpty());
  EXPECT_EQ(b->hardStops, 0);
  cart->removeCue(b.get());  // not there any more: nothing happens

  auto full = cartOfSize(5, 5);
  full->setCue(b, 7);
  full->removeCue(b.get());
  EXPECT_TRUE(full->isEmpty());
  EXPECT_EQ(b->cart(), nullptr);
  EXPECT_EQ(b->hardStops, 1);
}

TEST(Cart, RemovalLooksUpByPublicIndexBelowFullWidth) {
  // The kept quirk: removing internal 5 in a 3-wide grid stops the cue at public 5,
  // which is internal 7, and removes the key 5.
  auto cart = cartOfSize(3, 3);
  auto atFive = countingCue("internal 5");
  auto atSeven = countingCue("internal 7");
  cart->setCue(atFive, 3);
  cart->setCue(atSeven, 5);
  ASSERT_EQ(cart->internalIndexOfCue(atSeven.get()), 7u);
  cart->removeCueAtInternalIndex(5);
  EXPECT_EQ(cart->cueAtInternalIndex(5), nullptr);
  EXPECT_EQ(atSeven->hardStops, 1);
  EXPECT_EQ(atSeven->cart(), nullptr);
  EXPECT_EQ(atFive->hardStops, 0);
  EXPECT_EQ(cart->cueAtInternalIndex(7), atSeven.get()) << "the other cue stays in its slot";
}

TEST(Cart, TriggersByKeyAndNoteAcrossCarts) {
  Cart first;
  Cart second;
  auto q1 = countingCue("q1", "q", 60);
  auto q2 = countingCue("q2", "Q", 60);
  auto w = countingCue("w", "w", 61);
  auto other = countingCue("other", "q", 60);
  auto silent = countingCue("silent");
  first.setCue(q1, 0);
  first.setCue(q2, 1);
  first.setCue(w, 2);
  first.setCue(silent, 3);
  second.setCue(other, 0);

  auto shortcuts = first.shortcuts();
  std::sort(shortcuts.begin(), shortcuts.end());
  EXPECT_EQ(shortcuts, (std::vector<std::string>{"", "Q", "Q", "W"}));
  EXPECT_EQ(first.cuesWithShortcut("Q").size(), 2u);
  EXPECT_TRUE(first.cuesWithShortcut("q").empty()) << "keys come upper-cased from the window";
  EXPECT_EQ(first.cuesWithShortcut("").size(), 1u);

  first.triggerDownWithShortcut("Q");
  first.triggerUpWithShortcut("Q");
  EXPECT_EQ(q1->downs, 1);
  EXPECT_EQ(q2->downs, 1) << "two cues on one key both fire";
  EXPECT_EQ(q2->ups, 1);
  EXPECT_EQ(w->downs, 0);
  EXPECT_EQ(other->downs, 0) << "keys reach only the cart they were given to";

  EXPECT_EQ(first.cuesWithDownMIDI(SontoMIDIMessage::noteOn(60, 1)).size(), 2u);
  EXPECT_TRUE(first.cuesWithDownMIDI(SontoMIDIMessage::noteOn(60, 0)).empty());
  EXPECT_EQ(first.cuesWithUpMIDI(SontoMIDIMessage::noteOn(60, 0)).size(), 2u);
  EXPECT_EQ(first.cuesWithUpMIDI(SontoMIDIMessage::noteOff(61)).size(), 1u);

  // A batch goes to every cart, and each cue sees the whole batch in order.
  const std::vector<SontoMIDIMessage> batch = {SontoMIDIMessage::noteOn(60, 100), SontoMIDIMessage::noteOn(61, 100),
                                               SontoMIDIMessage::noteOff(60)};
  for (Cart* cart : {&first, &second}) cart->processMIDIMessages(batch);
  EXPECT_EQ(q1->downs, 2);
  EXPECT_EQ(q1->ups, 2);
  EXPECT_EQ(w->downs, 1);
  EXPECT_EQ(w->ups, 0);
  EXPECT_EQ(other->downs, 1);
  EXPECT_EQ(other->ups, 1);
  EXPECT_EQ(silent->downs + silent->ups, 0);
}

TEST(Cart, BulkOperationsReachEveryCueDeadOrAlive) {
  FakeWorkspace workspace;
  auto cart = cartOfSize(5, 5);
  cart->setWorkspace(&workspace);
  auto a = countingCue("a");
  auto b = countingCue("b");
  cart->setCue(a, 0);
  cart->setCue(b, 24);
  cart->setSize({2, 2});
  ASSERT_TRUE(b->isDead());
  cart->pauseCues();
  cart->stopCues();
  cart->hardStopCues();
  for (const auto& cue : {a, b}) {
    EXPECT_EQ(cue->pauses, 1);
    EXPECT_EQ(cue->stops, 1);
  }
  EXPECT_EQ(a->hardStops, 1);
  EXPECT_EQ(b->hardStops, 2) << "once for going dead, once for the bulk stop";
  cart.reset();
  EXPECT_EQ(a->hardStops, 2) << "a cart that goes away leaves nothing sounding";
}

TEST(Cart, LogsPlaysWithTheFileName) {
  FakeWorkspace workspace;
  Cart cart;
  auto cue = countingCue("Overture");
  cue->setFile("/shows/media/overture.wav");
  cart.logPlayOfCue(*cue);  // no workspace yet: nowhere to write, and no crash
  cart.setWorkspace(&workspace);
  cart.logPlayOfCue(*cue);
  ASSERT_EQ(workspace.log.log().size(), 1u);
  const std::string& entry = workspace.log.log()[0];
  EXPECT_EQ(entry.substr(entry.size() - std::string(" - Overture (overture.wav)").size()),
            " - Overture (overture.wav)");
}

TEST(Cart, CopyTakesKeysAsPublicIndices) {
  FakeSourceFactory sources;
  auto cart = cartOfSize(3, 3);
  cart->setName("Act 2");
  auto cue = AudioCue::cue();
  cue->setName("bell");
  cart->setCue(cue, 3);  // internal 5
  auto copy = cart->copy();
  EXPECT_EQ(copy->name(), "Act 2");
  EXPECT_EQ(copy->size(), (CartSize{3, 3}));
  ASSERT_EQ(copy->count(), 1u);
  EXPECT_EQ(copy->cueAtInternalIndex(5), nullptr) << "the key is taken as a public index";
  Cue* moved = copy->cueAtInternalIndex(7);  // public 5 of a 3-wide grid
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(moved->name(), "bell");
  EXPECT_EQ(moved->cart(), copy.get());
  EXPECT_NE(moved, cue.get());
  EXPECT_EQ(cue->cart(), cart.get());
}

TEST(Cart, ArchiveRoundTripAndOldOrBrokenFiles) {
  FakeSourceFactory sources;
  auto writeCue = [](const Cue& cue) { return static_cast<const AudioCue&>(cue).archive(); };
  auto readCue = [](const QJsonObject& o) -> std::shared_ptr<Cue> { return AudioCue::createWithArchive(o); };

  auto cart = cartOfSize(3, 4);
  cart->setName("Cart 1");
  auto cue = AudioCue::cue();
  cue->setName("door");
  cart->setCue(cue, 4);  // internal 6
  const QJsonObject archive = cart->archive(writeCue);
  EXPECT_EQ(archive.value("$class").toString(), "Sonto");
  EXPECT_TRUE(archive.value("cues").toObject().contains("6"));
  auto back = Cart::fromArchive(archive, readCue);
  EXPECT_EQ(back->size(), (CartSize{3, 4}));
  EXPECT_EQ(back->name(), "Cart 1");
  ASSERT_NE(back->cueAtInternalIndex(6), nullptr);
  EXPECT_EQ(back->cueAtInternalIndex(6)->name(), "door");

  // An old file: no size. Its cues stay where they were.
  QJsonObject old = archive;
  old.remove("size");
  old.remove("name");
  auto oldCart = Cart::fromArchive(old, readCue);
  EXPECT_EQ(oldCart->size(), (CartSize{5, 4}));
  EXPECT_EQ(oldCart->name(), "");
  EXPECT_NE(oldCart->cueAtInternalIndex(6), nullptr);
  QJsonObject zero = archive;
  zero.insert("size", QJsonArray{0, 0});
  EXPECT_EQ(Cart::fromArchive(zero, readCue)->size(), (CartSize{5, 4}));

  sonto::test::LogCapture log;
  QJsonObject broken;
  QJsonObject cues;
  cues.insert("x", cue->archive());
  cues.insert("-1", cue->archive());
  cues.insert("99", cue->archive());
  cues.insert("2", QJsonValue("not a cue"));
  cues.insert("3", cue->archive());
  broken.insert("cues", cues);
  broken.insert("size", QJsonArray{7, -2});
  auto repaired = Cart::fromArchive(broken, readCue);
  EXPECT_EQ(repaired->count(), 1u);
  EXPECT_NE(repaired->cueAtInternalIndex(3), nullptr);
  EXPECT_EQ(repaired->size(), (CartSize{5, 4}));
  EXPECT_EQ(countLines(log, "Skipping a cue"), 4u);
  EXPECT_EQ(countLines(log, "not a grid"), 1u);
  EXPECT_TRUE(Cart::fromArchive(QJsonObject(), readCue)->isEmpty());
}
