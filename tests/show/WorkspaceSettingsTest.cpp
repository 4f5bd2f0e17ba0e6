// The workspace settings: defaults, the state dictionary through the archive, and
// files that hold partial, cleared or wrong values.
#include <gtest/gtest.h>

#include "show/SontoArchive.h"
#include "show/WorkspaceSettings.h"

namespace {

QJsonObject throughArchive(const QJsonObject& state) {
  const auto back = SontoArchive::decodeObject(SontoArchive::encode(state));
  EXPECT_TRUE(back);
  return back.value_or(QJsonObject());
}

}  // namespace

TEST(WorkspaceSettings, DefaultsAndReset) {
  WorkspaceSettings settings;
  settings.setMidiChannel(9);
  settings.setPanicDuration(4.0f);
  settings.setShouldPerformSafetyChecks(true);
  settings.pauseAllKey().setShift(true);
  settings.resetToDefaults();
  EXPECT_EQ(settings.midiChannel(), 0);
  EXPECT_EQ(settings.panicDuration(), 1.0f);
  EXPECT_FALSE(settings.shouldPerformSafetyChecks());
  const std::tuple<const KyoHotKey&, uint16_t, uint16_t> keys[] = {
      {settings.pauseAllKey(), 33, '['}, {settings.resumeAllKey(), 30, ']'}, {settings.duckMasterKey(), 43, ','}};
  for (const auto& [key, code, character] : keys) {
    EXPECT_EQ(key.keyCode(), code);
    EXPECT_EQ(key.keyCharacter(), character);
    EXPECT_FALSE(key.shift() || key.control() || key.option() || key.command() || key.capsLock() || key.function());
  }
  EXPECT_EQ(settings.hotkeys().size(), 3u);
}

TEST(WorkspaceSettings, RefusalsKeepTheLastGoodValue) {
  WorkspaceSettings settings;
  ASSERT_TRUE(settings.setPanicDuration(2.5f));
  EXPECT_FALSE(settings.setPanicDuration(-1.0f));
  EXPECT_FALSE(settings.setPanicDuration(std::nanf("")));
  EXPECT_EQ(settings.panicDuration(), 2.5f);
  EXPECT_TRUE(settings.setPanicDuration(0.0f)) << "0 is a cut, not a refusal";
  EXPECT_TRUE(settings.setPanicDuration(1e6f)) << "no upper limit";
  EXPECT_TRUE(settings.setMidiChannel(16));
  EXPECT_FALSE(settings.setMidiChannel(17));
  EXPECT_FALSE(settings.setMidiChannel(-1));
  EXPECT_EQ(settings.midiChannel(), 16);
}

TEST(WorkspaceSettings, ClearButtonsByTag) {
  for (int tag = 0; tag <= 6; ++tag) {
    WorkspaceSettings settings;
    settings.clearHotkey(tag);
    EXPECT_EQ(settings.pauseAllKey().isEmpty(), tag == 1) << tag;
    EXPECT_EQ(settings.resumeAllKey().isEmpty(), tag == 2) << tag;
    EXPECT_EQ(settings.duckMasterKey().isEmpty(), tag == 5) << tag;
  }
}

TEST(WorkspaceSettings, StateRoundTripsThroughTheArchive) {
  WorkspaceSettings settings;
  settings.setMidiChannel(16);
  settings.setPanicDuration(0.1f);
  settings.setShouldPerformSafetyChecks(true);
  settings.pauseAllKey().setKeyCode(122);
  settings.pauseAllKey().setKeyCharacter(0xF704);
  settings.pauseAllKey().setAllFlags(true);
  settings.clearHotkey(WorkspaceSettings::kResumeAllTag);
  const QJsonObject state = throughArchive(settings.state());

  WorkspaceSettings read;
  read.setState(state);
  EXPECT_EQ(read.midiChannel(), 16);
  EXPECT_EQ(read.panicDuration(), 0.1f) << "bit for bit";
  EXPECT_TRUE(read.shouldPerformSafetyChecks());
  EXPECT_EQ(read.pauseAllKey(), settings.pauseAllKey());
  EXPECT_TRUE(read.resumeAllKey().isEmpty()) << "a cleared key stays cleared";
  EXPECT_EQ(read.duckMasterKey(), settings.duckMasterKey());
  EXPECT_EQ(state.value("MIDI Controls").toObject().value("midiChannel").toInt(), 16);
  EXPECT_TRUE(state.value("General Settings").toObject().value("performSafetyCheck").isBool());
}

TEST(WorkspaceSettings, PartialAndWrongStatesKeepWhatTheyDoNotHold) {
  struct Case {
    const char* name;
    const char* json;
    long channel;
    float panic;
    bool check;
    bool pauseIsDefault;
  };
  const Case cases[] = {
      {"empty", "{}", 3, 2.0f, true, false},
      {"only MIDI", R"({"MIDI Controls":{"midiChannel":7}})", 7, 2.0f, true, false},
      {"channel out of range", R"({"MIDI Controls":{"midiChannel":99}})", 3, 2.0f, true, false},
      {"channel not whole", R"({"MIDI Controls":{"midiChannel":2.5}})", 3, 2.0f, true, false},
      {"negative panic", R"({"General Settings":{"panicDuration":-1}})", 3, 2.0f, true, false},
      {"check as number", R"({"General Settings":{"performSafetyCheck":0}})", 3, 2.0f, false, false},
      {"wrong section types", R"({"Key Map":[],"MIDI Controls":"x","General Settings":5})", 3, 2.0f, true, false},
      {"wrong entry types", R"({"MIDI Controls":{"midiChannel":"7"},"General Settings":{"panicDuration":"3"}})", 3,
       2.0f, true, false},
      {"missing key entry", R"({"Key Map":{"resumeAll":{"keyCode":1}}})", 3, 2.0f, true, false},
      {"key entry with one field", R"({"Key Map":{"pauseAll":{"keyCode":33}}})", 3, 2.0f, true, false},
      {"key code out of range", R"({"Key Map":{"pauseAll":{"keyCode":70000,"keyCharacter":-1}}})", 3, 2.0f, true,
       false},
  };
  for (const auto& c : cases) {
    WorkspaceSettings settings;
    settings.setMidiChannel(3);
    settings.setPanicDuration(2.0f);
    settings.setShouldPerformSafetyChecks(true);
    settings.pauseAllKey().setShift(true);
    settings.setState(SontoArchive::decodeObject(c.json));
    EXPECT_EQ(settings.midiChannel(), c.channel) << c.name;
    EXPECT_EQ(settings.panicDuration(), c.panic) << c.name;
    EXPECT_EQ(settings.shouldPerformSafetyChecks(), c.check) << c.name;
  }
  // A descriptor with one field sets every field: the others to zero.
  WorkspaceSettings settings;
  settings.pauseAllKey().setShift(true);
  settings.setState(SontoArchive::decodeObject(R"({"Key Map":{"pauseAll":{"keyCode":33}}})"));
  EXPECT_FALSE(settings.pauseAllKey().shift());
  EXPECT_EQ(settings.pauseAllKey().keyCharacter(), 0);
  // Out-of-range fields are dropped; what remains is empty, so the key stays.
  settings.setState(SontoArchive::decodeObject(R"({"Key Map":{"pauseAll":{"keyCode":70000}}})"));
  EXPECT_EQ(settings.pauseAllKey().keyCode(), 33);
  // Null changes nothing.
  settings.setState(std::nullopt);
  EXPECT_EQ(settings.pauseAllKey().keyCode(), 33);
}
