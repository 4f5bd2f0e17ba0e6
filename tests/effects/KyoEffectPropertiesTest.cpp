#include <gtest/gtest.h>

#include <cstring>

#include "EffectTestSupport.h"
#include "effects/KyoEffect.h"

using namespace sonto::test;

namespace {

std::shared_ptr<KyoEffect> openMixer(uint32_t inputs, uint32_t outputs, bool initialize = true) {
  return readyMixer(KyoEffect::effectWithDescription(KyoAudioComponentDescription::appleMatrixMixer()), inputs,
                    outputs, initialize);
}

std::shared_ptr<KyoEffect> openGain(uint32_t channels) {
  auto effect = effectWithURI(kGainURI);
  if (!effect || !effect->open()) return nullptr;
  EXPECT_TRUE(effect->setStreamFormat(KyoAudioStreamDescription(44100.0, channels)));
  EXPECT_TRUE(effect->initialize());
  return effect;
}

struct AlertCatcher {
  AlertCatcher() {
    KyoEffect::setAlertHandler(
        [this](const KyoError& error, const std::string&, const std::string&) { errors.push_back(error); });
  }
  ~AlertCatcher() { KyoEffect::setAlertHandler(nullptr); }
  std::vector<KyoError> errors;
};

}  // namespace

// Sizes and writability as the units report them, for a mixer and a plugin alike.
TEST(KyoEffectProperties, InfoOfEachKnownPropertyMatchesWhatItReads) {
  auto mixer = openMixer(2, 3);
  auto gain = openGain(2);
  ASSERT_TRUE(mixer && gain);
  struct Row {
    KyoEffect* effect;
    uint32_t property;
    KyoAudioUnitScope scope;
    size_t size;
    bool writable;
  };
  const Row rows[] = {
      {mixer.get(), kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 3 * 4 * sizeof(float), true},
      {mixer.get(), kKyoAudioUnitProperty_MatrixDimensions, kKyoAudioUnitScope_Global, 2 * sizeof(uint32_t), false},
      {mixer.get(), kKyoAudioUnitProperty_MeteringMode, kKyoAudioUnitScope_Global, sizeof(uint32_t), true},
      {mixer.get(), kKyoAudioUnitProperty_StreamFormat, kKyoAudioUnitScope_Output, 40, true},
      {gain.get(), kKyoAudioUnitProperty_StreamFormat, kKyoAudioUnitScope_Input, 40, true},
      {gain.get(), kKyoAudioUnitProperty_Latency, kKyoAudioUnitScope_Global, sizeof(double), false},
      {gain.get(), kKyoAudioUnitProperty_TailTime, kKyoAudioUnitScope_Global, sizeof(double), false},
      {gain.get(), kKyoAudioUnitProperty_MaximumFramesPerSlice, kKyoAudioUnitScope_Global, sizeof(uint32_t), true},
      // A plugin has one bus each way and keeps it.
      {gain.get(), kKyoAudioUnitProperty_ElementCount, kKyoAudioUnitScope_Input, sizeof(uint32_t), false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.property);
    EXPECT_TRUE(row.effect->isPropertyAvailable(row.property, row.scope));
    EXPECT_EQ(row.effect->isPropertyWritable(row.property, row.scope, 0), row.writable);
    auto data = row.effect->dataForProperty(row.property, row.scope);
    ASSERT_TRUE(data);
    EXPECT_EQ(data->size(), row.size);
  }
  EXPECT_EQ(mixer->unsignedIntValueForProperty(kKyoAudioUnitProperty_MatrixDimensions), 2u);
  EXPECT_EQ(gain->unsignedIntValueForProperty(kKyoAudioUnitProperty_ElementCount, kKyoAudioUnitScope_Output), 1u);
  EXPECT_EQ(gain->unsignedIntValueForProperty(kKyoAudioUnitProperty_MaximumFramesPerSlice),
            KyoAudioUnit::kDefaultMaximumFramesPerSlice);
  EXPECT_DOUBLE_EQ(gain->doubleValueForProperty(kKyoAudioUnitProperty_Latency), gain->audioUnit()->latency());
}

TEST(KyoEffectProperties, UnknownPropertiesAreQuietAndOtherFailuresAreLoggedWithTheirStatus) {
  auto gain = openGain(1);
  ASSERT_NE(gain, nullptr);
  {
    LogCapture log;
    KyoError error;
    EXPECT_FALSE(gain->isPropertyWritable(999999, kKyoAudioUnitScope_Global, 0, &error));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(gain->isPropertyAvailable(999999));
    EXPECT_FALSE(gain->dataForProperty(999999, kKyoAudioUnitScope_Global, 0, &error));
    EXPECT_EQ(error.code, kKyoAudioUnitErr_InvalidProperty);
    EXPECT_EQ(gain->unsignedIntValueForProperty(999999), 0u);
    EXPECT_EQ(gain->doubleValueForProperty(999999), 0.0);
    EXPECT_FALSE(gain->boolValueForProperty(999999));
  }
  {
    // A stream format of a bus that is not there: not "invalid property", so it is told.
    LogCapture log;
    KyoError error;
    EXPECT_FALSE(gain->isPropertyWritable(kKyoAudioUnitProperty_StreamFormat, kKyoAudioUnitScope_Input, 7, &error));
    EXPECT_EQ(error.code, kKyoAudioUnitErr_InvalidElement);
    EXPECT_TRUE(log.contains("Error: -10877"));
  }
  // The mixer's matrix has no size until the mixer knows its channels.
  auto cold = openMixer(2, 2, false);
  ASSERT_NE(cold, nullptr);
  KyoError error;
  EXPECT_FALSE(cold->dataForProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, &error));
  EXPECT_EQ(error.code, kKyoAudioUnitErr_Uninitialized);
  EXPECT_EQ(error.domain, "AudioUnitErrorDomain");
}

TEST(KyoEffectProperties, SettingEachKindOfObjectReachesTheUnitExactly) {
  auto mixer = openMixer(1, 2);
  ASSERT_NE(mixer, nullptr);
  EXPECT_TRUE(mixer->setBool(true, kKyoAudioUnitProperty_MeteringMode));
  EXPECT_TRUE(mixer->boolValueForProperty(kKyoAudioUnitProperty_MeteringMode));
  EXPECT_TRUE(mixer->setUnsignedInt(0, kKyoAudioUnitProperty_MeteringMode));
  EXPECT_FALSE(mixer->boolValueForProperty(kKyoAudioUnitProperty_MeteringMode));

  // Data: the level matrix, byte for byte, with values that do not round-trip through text loosely.
  const float levels[] = {0.1f, 1.0f / 3.0f, 0.7f, 0.25f, 1e-7f, 0.9f};
  std::vector<uint8_t> bytes(sizeof levels);
  std::memcpy(bytes.data(), levels, sizeof levels);
  KyoError error;
  EXPECT_TRUE(mixer->setObject(bytes, kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, &error));
  auto back = mixer->dataForProperty(kKyoAudioUnitProperty_MatrixLevels);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, bytes);

  // A stream format on an uninitialized plugin.
  auto gain = effectWithURI(kGainURI);
  ASSERT_TRUE(gain && gain->open());
  const KyoAudioStreamDescription format(96000.0, 1);
  EXPECT_TRUE(gain->setObject(format, kKyoAudioUnitProperty_StreamFormat, kKyoAudioUnitScope_Input, 0, &error));
  EXPECT_EQ(gain->inputStreamFormat(), format);
  auto record = gain->dataForProperty(kKyoAudioUnitProperty_StreamFormat, kKyoAudioUnitScope_Input);
  ASSERT_TRUE(record);
  ASSERT_EQ(record->size(), sizeof(AudioStreamBasicDescription));
  const AudioStreamBasicDescription expected = format.streamDescription();
  EXPECT_EQ(std::memcmp(record->data(), &expected, record->size()), 0);
}

TEST(KyoEffectProperties, NothingToSetOrNoUnitSucceedsAndFailuresReachTheAlertOrTheError) {
  AlertCatcher alerts;
  auto unopened = effectWithURI(kGainURI);
  ASSERT_NE(unopened, nullptr);
  EXPECT_TRUE(unopened->setUnsignedInt(1, kKyoAudioUnitProperty_MaximumFramesPerSlice));
  EXPECT_FALSE(unopened->dataForProperty(kKyoAudioUnitProperty_Latency));
  EXPECT_FALSE(unopened->isPropertyWritable(kKyoAudioUnitProperty_MaximumFramesPerSlice));

  auto mixer = openMixer(2, 2);
  ASSERT_NE(mixer, nullptr);
  EXPECT_TRUE(mixer->setObject(KyoPropertyObject{}, kKyoAudioUnitProperty_MatrixLevels));
  EXPECT_TRUE(alerts.errors.empty());

  // Wrong sizes, read-only properties, a changed format on a running unit: refused, never stored.
  const std::vector<uint8_t> shortLevels(5, 0);
  LogCapture log;
  KyoError error;
  EXPECT_FALSE(mixer->setObject(shortLevels, kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, &error));
  EXPECT_EQ(error.code, kKyoAudioUnitErr_InvalidPropertyValue);
  EXPECT_TRUE(alerts.errors.empty());  // the form with an error never shows an alert
  EXPECT_TRUE(log.contains("Error: -10851"));

  EXPECT_FALSE(mixer->setUnsignedInt(4, kKyoAudioUnitProperty_MatrixDimensions));
  EXPECT_FALSE(mixer->setUnsignedInt(0, kKyoAudioUnitProperty_MaximumFramesPerSlice));
  EXPECT_FALSE(mixer->setObject(std::vector<uint8_t>{}, kKyoAudioUnitProperty_MeteringMode));
  ASSERT_EQ(alerts.errors.size(), 3u);
  EXPECT_EQ(alerts.errors[0].code, kKyoAudioUnitErr_PropertyNotWritable);
  EXPECT_EQ(alerts.errors[1].code, kKyoAudioUnitErr_InvalidPropertyValue);
  EXPECT_EQ(alerts.errors[2].code, kKyoAudioUnitErr_InvalidPropertyValue);
  EXPECT_EQ(mixer->unsignedIntValueForProperty(kKyoAudioUnitProperty_MaximumFramesPerSlice),
            KyoAudioUnit::kDefaultMaximumFramesPerSlice);
}
