#include "show/AudioCue.h"

#include <QMimeData>
#include <QSignalSpy>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <fstream>

#include "show/ShowTestSupport.h"
#include "support/TestFiles.h"
#include "support/Waiting.h"
#include "foundation/KyoNotificationCenter.h"

using sonto::test::temporaryPath;

namespace {

std::string touchFile(const std::string& name) {
  const std::string path = temporaryPath(name);
  std::ofstream(path) << "x";
  return path;
}

}  // namespace

TEST(AudioCueRecord, DefaultsOfBothMakers) {
  auto empty = AudioCue::cue();
  EXPECT_EQ(empty->volume(), 0.0f);
  EXPECT_EQ(empty->name(), "");
  EXPECT_FALSE(empty->flagged());
  EXPECT_FALSE(empty->loops() || empty->hold() || empty->solo() || empty->ducking());
  EXPECT_FALSE(empty->paused() || empty->playing() || empty->isDead() || empty->saved() || empty->doPanic());
  EXPECT_EQ(empty->color().name(), SontoColor::defaultColor().name());
  EXPECT_EQ(empty->hotkey(), "");
  EXPECT_TRUE(empty->effects()->empty());
  EXPECT_TRUE(empty->midiTrigger().isNull());
  EXPECT_FALSE(empty->midiNote().has_value());
  EXPECT_EQ(empty->deviceChannel(), 1);
  EXPECT_EQ(empty->type(), "Cue");
  EXPECT_EQ(empty->displayName(), "(Untitled Cue Cue)") << "the kind keeps the base type, so Cue comes twice";
  EXPECT_EQ(empty->listName(), "");
  EXPECT_TRUE(empty->isBroken()) << "no source at all";
  EXPECT_EQ(empty->brokenExplanation(), "Invalid audio file.");

  FakeSourceFactory sources;
  sources.templateState->fileChannels = 1;
  const std::string path = touchFile("Take Five.final.wav");
  auto cue = AudioCue::createWithFile(path, nullptr);
  EXPECT_EQ(cue->name(), "Take Five.final");
  EXPECT_EQ(cue->volume(), 1.0f);
  EXPECT_EQ(cue->file(), path);
  EXPECT_EQ(cue->startTime(), 0.0);
  EXPECT_EQ(cue->endTime(), 12.5);
  FakeSourceState& source = sources.last();
  EXPECT_EQ(source.aliasPath, path);
  ASSERT_EQ(source.crosspoints.size(), 1u) << "a mono file feeds the second output too";
  EXPECT_EQ(source.crosspoints[0], std::make_tuple(1.0f, 0u, 1u));
  EXPECT_EQ(source.sliceEnd, 12.5);
  EXPECT_EQ(source.slicePlayCount, 1);
  EXPECT_EQ(cue->displayName(), "Take Five.final");
}

TEST(AudioCueRecord, BrokenExplanationsAndUpdateFile) {
  FakeSourceFactory sources;
  auto cue = AudioCue::createWithFile(touchFile("a.wav"), nullptr);
  FakeSourceState& source = sources.last();
  EXPECT_TRUE(cue->isBroken());
  EXPECT_EQ(cue->brokenExplanation(), "No audio device. Please select one.");
  source.valid = false;
  EXPECT_EQ(cue->brokenExplanation(), "Invalid audio file.") << "an unreadable file is named first";

  // A stereo file after a move: the second output loses the first channel again.
  const std::string moved = touchFile("moved.wav");
  QSignalSpy fileChanged(cue.get(), &AudioCue::fileChanged);
  source.crosspoints.clear();
  cue->setLoopsValue(true);
  cue->updateFile(moved);
  EXPECT_EQ(cue->file(), moved);
  EXPECT_EQ(fileChanged.count(), 1);
  EXPECT_EQ(source.aliasPath, moved);
  ASSERT_EQ(source.crosspoints.size(), 1u);
  EXPECT_EQ(source.crosspoints[0], std::make_tuple(0.0f, 0u, 1u));
  EXPECT_EQ(source.slicePlayCount, -1) << "a looping cue's slice plays for ever";
  // A path that is gone gives no alias and no crash.
  cue->updateFile(temporaryPath("never-made.wav"));
  EXPECT_EQ(source.aliasPath, "");
}

TEST(AudioCueRecord, ParseHotkey) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {" q ", "Q"}, {"qw", "Q"}, {"", ""}, {"   ", ""}, {"\n\t", ""}, {"\tz\n", "Z"},
      {"1", "1"},   {"ß", "S"},  // upper-casing gives two letters; the first is kept
      {"é", "É"},   {"😀x", "😀"}, {"\xff\xfe", "\xEF\xBF\xBD"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(AudioCue::parseHotkey(input), expected) << "input \"" << input << "\"";
  auto cue = AudioCue::cue();
  QSignalSpy changed(cue.get(), &AudioCue::hotkeyChanged);
  cue->setHotkey(" a ");
  EXPECT_EQ(cue->hotkey(), "A");
  cue->setHotkey("A");
  EXPECT_EQ(changed.count(), 1) << "the same value again changes nothing";
  EXPECT_EQ(AudioCue::parseMidiNote(-5), 0);
  EXPECT_EQ(AudioCue::parseMidiNote(64), 64);
  EXPECT_EQ(AudioCue::parseMidiNote(1000000000000LL), 127);
}

TEST(AudioCueRecord, MidiTriggerBytes) {
  auto cue = AudioCue::cue();
  QSignalSpy noteChanged(cue.get(), &AudioCue::midiNoteChanged);
  cue->setMidiNote(128);
  EXPECT_TRUE(cue->midiTrigger().isNull()) << "out of range is ignored silently";
  cue->setMidiNote(-1);
  EXPECT_EQ(noteChanged.count(), 0);
  cue->setMidiNote(60);
  EXPECT_EQ(cue->midiTrigger(), QByteArray("\x90\x3c\x00", 3));
  EXPECT_EQ(noteChanged.count(), 1);
  EXPECT_EQ(cue->midiTriggerCommand(), 1);

  cue->setMidiTrigger(QByteArray("\x80\x3c\x40", 3));
  EXPECT_EQ(cue->midiTriggerCommand(), 0) << "a note off status is no command";
  cue->setMidiTriggerCommand(0);
  EXPECT_EQ(static_cast<uint8_t>(cue->midiTrigger()[0]), 128);
  const std::vector<std::pair<int, int>> commands = {{1, 144}, {2, 160}, {3, 176}, {4, 192}, {5, 208}};
  for (const auto& [command, status] : commands) {
    cue->setMidiTriggerCommand(command);
    EXPECT_EQ(static_cast<uint8_t>(cue->midiTrigger()[0]), status);
    EXPECT_EQ(cue->midiTriggerCommand(), command);
  }
  cue->setMidiTriggerCommand(6);
  cue->setMidiTriggerCommand(-1);
  EXPECT_EQ(cue->midiTriggerCommand(), 5);

  cue->setMidiTriggerByte2(128);
  EXPECT_EQ(cue->midiTriggerByte2(), 128) << "one past a data byte is taken on purpose";
  cue->setMidiTriggerByte2(129);
  EXPECT_EQ(cue->midiTriggerByte2(), 128);
  EXPECT_EQ(*cue->midiNote(), 60) << "editing the other bytes keeps the note";

  cue->setMidiTriggerFrom(SontoMIDIMessage::noteOn(72, 100, 9));
  EXPECT_EQ(*cue->midiNote(), 72);
  EXPECT_EQ(static_cast<uint8_t>(cue->midiTrigger()[0]), 208) << "a capture takes the note only";
  EXPECT_EQ(cue->midiTriggerByte2(), 128);

  // A short trigger from a damaged file: no note, no crash, and editing mends it.
  cue->setMidiTrigger(QByteArray("\x90", 1));
  EXPECT_FALSE(cue->midiNote().has_value());
  EXPECT_EQ(cue->midiTriggerByte2(), 0);
  cue->setMidiNote(5);
  EXPECT_EQ(cue->midiTrigger(), QByteArray("\x90\x05\x00", 3));
}

TEST(AudioCueRecord, NoteMatching) {
  auto cue = countingCue("pad", "", 60);
  struct Case {
    SontoMIDIMessage message;
    bool down, up;
  };
  const std::vector<Case> cases = {
      {SontoMIDIMessage::noteOn(60, 100), true, false},
      {SontoMIDIMessage::noteOn(60, 1, 16), true, false},   // any channel: it was filtered before
      {SontoMIDIMessage::noteOn(60, 0), false, true},       // velocity 0 is a release
      {SontoMIDIMessage::noteOff(60, 64), false, true},
      {SontoMIDIMessage::noteOff(60, 0, 5), false, true},
      {SontoMIDIMessage::noteOn(61, 100), false, false},
      {SontoMIDIMessage::noteOff(59), false, false},
      {SontoMIDIMessage{0xB0, 60, 100}, false, false},       // a controller on the same number
      {SontoMIDIMessage{0xA0, 60, 0}, false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(cue->matchesForMIDIDown(c.message), c.down) << int(c.message.statusByte) << " " << int(c.message.dataByte1);
    EXPECT_EQ(cue->matchesForMIDIUp(c.message), c.up) << int(c.message.statusByte) << " " << int(c.message.dataByte1);
  }
  cue->handleMIDIMessages({SontoMIDIMessage::noteOn(60, 90), SontoMIDIMessage::noteOn(60, 0),
                           SontoMIDIMessage::noteOn(60, 90), SontoMIDIMessage::noteOff(60),
                           SontoMIDIMessage::noteOn(1, 90)});
  EXPECT_EQ(cue->downs, 2);
  EXPECT_EQ(cue->ups, 2);
  auto none = countingCue("no trigger");
  EXPECT_FALSE(none->matchesForMIDIDown(SontoMIDIMessage::noteOn(0, 100)));
  EXPECT_FALSE(none->matchesForMIDIUp(SontoMIDIMessage::noteOff(0)));
}

TEST(AudioCueRecord, CopyTakesTheRecordAndSharesEffects) {
  FakeSourceFactory sources;
  auto device = std::shared_ptr<KyoAudioDevice>();
  auto cue = AudioCue::createWithFile(touchFile("copy.wav"), device);
  cue->setName("Thunder");
  cue->setDocumentPath("Media/copy.wav");
  cue->setHotkey("t");
  cue->setVolumeValue(0.25f);
  cue->setHold(true);
  cue->setLoopsValue(true);
  cue->setSolo(true);
  cue->setDucking(true);
  cue->setStartTimeValue(1.5);
  cue->setEndTimeValue(3.25);
  cue->setColor(SontoColor::redColor());
  cue->setMidiNote(42);
  cue->setFlagged(true);
  cue->setSaved(true);
  cue->setDeviceChannelValue(7);
  Cart cart;
  cart.setCue(cue, 2);

  auto copy = cue->copyAudioCue();
  EXPECT_EQ(copy->name(), "Thunder");
  EXPECT_EQ(copy->documentPath(), "Media/copy.wav");
  EXPECT_EQ(copy->hotkey(), "T");
  EXPECT_EQ(copy->volume(), 0.25f);
  EXPECT_TRUE(copy->hold() && copy->loops() && copy->solo() && copy->ducking());
  EXPECT_EQ(copy->startTime(), 1.5);
  EXPECT_EQ(copy->endTime(), 3.25);
  EXPECT_EQ(sources.last().sliceEnd, 12.5) << "the copy's source got its slice before the times were set";
  EXPECT_EQ(copy->color().name(), "red");
  EXPECT_EQ(copy->midiTrigger(), cue->midiTrigger());
  EXPECT_EQ(copy->effects(), cue->effects()) << "one array, shared";
  EXPECT_FALSE(copy->flagged());
  EXPECT_FALSE(copy->saved());
  EXPECT_EQ(copy->deviceChannel(), 1);
  EXPECT_EQ(copy->cart(), nullptr);
  EXPECT_EQ(copy->number(), std::to_string(Cart::kNotFound));
  EXPECT_EQ(cue->number(), "2");
}

TEST(AudioCueRecord, ClipboardRoundTrip) {
  FakeSourceFactory sources;
  auto cue = AudioCue::createWithFile(touchFile("clip.wav"), nullptr);
  cue->setName("Applause \"long\"");
  cue->setDocumentPath("Media/clip.wav");
  cue->setHotkey("z");
  cue->setVolumeValue(0.1f);  // not exact in binary: must come back bit for bit
  cue->setLoopsValue(true);
  cue->setDead(true);
  cue->setColor(SontoColor::decodedColor("purple", {0.1, 0.2, 0.3, 1.0}, {0.0, 0.05, 0.1, 0.5}));
  cue->setMidiTrigger(QByteArray("\xb0\x7f\x80", 3));
  cue->setStartTimeValue(0.1);
  cue->setEndTimeValue(9.87654321);
  cue->setFlagged(true);

  auto data = cue->mimeData();
  ASSERT_TRUE(data->hasFormat(AudioCue::kPasteboardType));
  AudioCue::setIndexOnMimeData(*data, 17);
  auto back = AudioCue::fromMimeData(*data);
  ASSERT_TRUE(back);
  EXPECT_EQ(AudioCue::indexFromMimeData(*data), 17ul);
  EXPECT_EQ(back->file(), cue->file());
  EXPECT_EQ(back->name(), cue->name());
  EXPECT_EQ(back->documentPath(), "Media/clip.wav") << "kept until the next save replaces it";
  EXPECT_EQ(back->hotkey(), "Z");
  EXPECT_EQ(back->volume(), 0.1f);
  EXPECT_TRUE(back->loops());
  EXPECT_TRUE(back->isDead());
  EXPECT_EQ(back->color().name(), "purple");
  EXPECT_EQ(back->color().endColor(), (KyoRGBA{0.0, 0.05, 0.1, 0.5}));
  EXPECT_EQ(back->midiTrigger(), cue->midiTrigger());
  EXPECT_EQ(back->startTime(), 0.1);
  EXPECT_EQ(back->endTime(), 9.87654321);
  EXPECT_TRUE(back->flagged());
  EXPECT_TRUE(back->saved());
  EXPECT_EQ(back->audioDevice(), nullptr);
  EXPECT_EQ(sources.last().aliasCount, 0) << "a decoded source has no file until the reader gives it one";
  EXPECT_EQ(sources.last().sliceEnd, 9.87654321);
}

TEST(AudioCueRecord, BrokenClipboardData) {
  sonto::test::LogCapture log;
  QMimeData empty;
  EXPECT_EQ(AudioCue::fromMimeData(empty), nullptr);
  EXPECT_FALSE(AudioCue::indexFromMimeData(empty).has_value());

  const std::vector<QByteArray> payloads = {
      "", "not json", "[1,2,3]", "{\"$class\":\"Sonto\"}", "{\"file\":\"x\"}", QByteArray("\0\0\0", 3),
  };
  for (const QByteArray& payload : payloads) {
    QMimeData data;
    data.setData(AudioCue::kPasteboardType, payload);
    EXPECT_EQ(AudioCue::fromMimeData(data), nullptr) << payload.toStdString();
  }
  EXPECT_EQ(log.lines().size(), payloads.size()) << "each refusal says why";

  // Right class, wrong types everywhere: defaults, no crash.
  QMimeData odd;
  odd.setData(AudioCue::kPasteboardType,
              R"({"$class":"SontoCue","file":3,"name":[],"volume":"loud","hold":"yes","color":{"name":"red"},
                  "midiTrigger":{"$data":"!!!"},"startTime":null,"effects":[1,{"class":"Nope"}]})");
  auto cue = AudioCue::fromMimeData(odd);
  ASSERT_TRUE(cue);
  EXPECT_EQ(cue->file(), "");
  EXPECT_EQ(cue->volume(), 0.0f);
  EXPECT_FALSE(cue->hold());
  EXPECT_EQ(cue->color().name(), "default") << "a colour without its values is not taken";
  EXPECT_TRUE(cue->midiTrigger().isEmpty());
  EXPECT_TRUE(cue->effects()->empty());

  const std::vector<QByteArray> indices = {"{\"index\":-1}", "{\"index\":1.5}", "{\"index\":\"3\"}", "junk"};
  for (const QByteArray& payload : indices) {
    QMimeData data;
    data.setData(AudioCue::kIndexPasteboardType, payload);
    EXPECT_FALSE(AudioCue::indexFromMimeData(data).has_value()) << payload.toStdString();
  }
}

TEST(AudioCueRecord, HardStopNotificationReachesEveryCueAndStopsAtDestruction) {
  auto a = countingCue("a");
  auto b = countingCue("b");
  KyoNotificationCenter::defaultCenter().postNotification(AudioCue::kHardStopNotification, a.get());
  EXPECT_EQ(a->hardStops, 1) << "the sender is rewound too";
  EXPECT_EQ(b->hardStops, 1);
  b.reset();
  KyoNotificationCenter::defaultCenter().postNotification(AudioCue::kHardStopNotification, nullptr);
  EXPECT_EQ(a->hardStops, 2);

  FakeSourceFactory sources;
  {
    auto cue = AudioCue::createWithFile(touchFile("gone.wav"), nullptr);
  }
  EXPECT_EQ(sources.last().hardStops, 1) << "no sound outlives its cue";
}
