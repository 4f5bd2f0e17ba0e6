// The send on the offline device: sources mixed through it sample for sample, with and
// without an aux chain, with nothing allocated on the render thread; its busses as
// sources come and go; its shape; its locks under real threads.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "EffectTestSupport.h"
#include "SourceTestSupport.h"
#include "audio/KyoAudioDeviceTestSupport.h"
#include "audio/KyoMatrixMixer.h"
#include "effects/KyoAudioSend.h"
#include "effects/KyoEffectBus.h"
#include "foundation/KyoLog.h"

using namespace sonto::test;

namespace {

// A synthetic source that plays through a send: a constant on chosen channels.
struct SentSource : TestSource {
  SentSource(std::shared_ptr<KyoAudioSend> send, uint32_t channel, float value)
      : TestSource(send->device(), {channel}, Signal::Constant, value), via(std::move(send)) {}
  std::shared_ptr<KyoAudioSending> send() const override { return via; }
  std::shared_ptr<KyoAudioSend> via;
};

std::shared_ptr<KyoAudioSend> sendOn(Device& d) {
  auto send = KyoAudioSend::create();
  send->setDevice(d.device);
  return send;
}

std::shared_ptr<SentSource> playing(Device& d, const std::shared_ptr<KyoAudioSend>& send, uint32_t channel,
                                    float value) {
  auto source = std::make_shared<SentSource>(send, channel, value);
  EXPECT_TRUE(d.device->_attachAudio(source));
  source->_play();
  return source;
}

}  // namespace

TEST(KyoAudioSend, SourceThroughTheSendArrivesSampleForSample) {
  const struct {
    const char* name;
    bool bus, gain;
  } cases[] = {{"mainOnly", false, false}, {"auxWithoutEffect", true, false}, {"auxThroughGain", true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Device d(2, 48000, 128);
    auto send = sendOn(d);
    auto bus = std::make_shared<KyoEffectBus>(2);
    auto gain = effectWithURI(kGainURI);
    if (c.gain) bus->setEffects({gain});
    if (c.bus) send->addEffectBus(bus);
    gain->setValue(-6.0f, kGainParameter);
    const int64_t frames = 9000;
    auto source = loadedSource(d, rampFile(std::string("send-") + c.name + ".wav", 48000, 2, frames));
    source->setSend(send);
    waitUntilReady(*source);
    source->setDefaultVolumes();
    EXPECT_EQ(source->mixerOutChannels(), kKyoLogicalChannels + send->auxChannels());
    // Left to aux 0 at half, right to aux 1 at a quarter; the returns cross over.
    source->setAuxVolume(0.5f, 1, 0);
    source->setAuxVolume(0.25f, 2, 1);
    send->setAuxCrosspointVolume(1.0f, 0, 1);
    send->setAuxCrosspointVolume(1.0f, 1, 0);

    // Pulled once before play, so the recording has its size: a watched pull must not allocate.
    const uint32_t cycles = uint32_t(frames / 128) + 3;
    d.record(cycles);
    source->play();
    KyoHAL::shared().clearOfflineRecording(d.id);
    EXPECT_EQ(allocationsOnRenderThread([&] { KyoHAL::shared().pullOffline(d.id, cycles); }), 0u);
    auto rec = KyoHAL::shared().offlineRecording(d.id);
    const float g = c.gain ? dbFactor(-6.0f) : 1.0f;
    for (uint32_t out = 0; out < 2; ++out) {
      expectFrames(rec[out], [&](int64_t i) {
        if (i >= frames) return 0.0f;
        return c.bus ? rampSample(i, out) + rampSample(i, 1 - out) * (out ? 0.5f : 0.25f) * g : rampSample(i, out);
      });
    }
    source->hardStop();
    source->setSend(nullptr);  // detaches from the send, which holds it while attached
    EXPECT_FALSE(send->hasAudioAttached());
    EXPECT_FALSE(d.device->_busOfAudio(send.get()));
  }
}

TEST(KyoAudioSend, ShapeFollowsTheEffectBusses) {
  const struct {
    std::vector<uint32_t> busses;
    uint32_t aux;
    std::vector<uint32_t> busAtChannel;  // bus index + 1 for channels 0, 1, 2, ...; 0 for none
  } cases[] = {{{}, 0, {0, 0}}, {{2, 4}, 6, {0, 1, 1, 2, 2, 2, 2, 0}}};
  for (const auto& c : cases) {
    Device d(2, 48000, 128);
    auto send = sendOn(d);
    for (uint32_t channels : c.busses) send->addEffectBus(std::make_shared<KyoEffectBus>(channels));
    EXPECT_EQ(send->auxChannels(), c.aux);
    EXPECT_EQ(send->splitMixerInChannels(), kKyoLogicalChannels + c.aux);
    EXPECT_EQ(send->inputFormat()->channels(), kKyoLogicalChannels + c.aux);
    KyoAudioUnit* split = send->splitMixer()->audioUnit();
    EXPECT_EQ(send->mergeMixer()->audioUnit()->elementCount(kKyoAudioUnitScope_Input), c.busses.size() + 1);
    for (size_t i = 0; i <= c.busses.size(); ++i)
      EXPECT_EQ(split->channelCount(kKyoAudioUnitScope_Output, uint32_t(i)), i ? c.busses[i - 1] : 48);
    for (uint32_t ch = 0, want; ch < c.busAtChannel.size(); ++ch)
      EXPECT_EQ(send->busAtChannel(ch), (want = c.busAtChannel[ch]) ? send->effectBusses()[want - 1] : nullptr) << ch;
    // Aux return 0 is the merge mixer's input 48, closed until routed.
    const uint32_t firstReturn = KyoMatrixMixer::crosspointElement(kKyoLogicalChannels, 0);
    EXPECT_EQ(send->mergeMixer()->valueForParameter(0, kKyoAudioUnitScope_Global, firstReturn), 0.0f);
    send->setAuxCrosspointVolume(0.75f, 0, 0);
    EXPECT_EQ(send->mergeMixer()->valueForParameter(0, kKyoAudioUnitScope_Global, firstReturn), c.aux ? 0.75f : 0.0f);
  }
}

TEST(KyoAudioSend, SourcesComeAndGoOnTheSendsBusses) {
  Device d(2, 48000, 128);
  auto send = sendOn(d);
  auto a = playing(d, send, 0, 0.25f);
  EXPECT_TRUE(d.device->_attachAudio(a));  // twice: still one bus
  auto b = playing(d, send, 1, 0.5f);
  EXPECT_TRUE(send->_busOfAudio(a.get()) == 0u && send->_busOfAudio(b.get()) == 1u);
  EXPECT_EQ(d.device->_freeBusCount(), kKyoBusCount - 1);
  EXPECT_TRUE(allEqual(d.record(2)[1], 0.5f));
  // A rebuild keeps both on their busses, sounding.
  send->addEffectBus(std::make_shared<KyoEffectBus>(2));
  EXPECT_EQ(send->_busOfAudio(b.get()), 1u);
  EXPECT_TRUE(allEqual(d.record(2)[0], 0.25f));
  // The send keeps its device bus while one of its sources is on it.
  d.device->_detachAudio(a.get());
  auto rec = d.record(2);
  EXPECT_TRUE(allEqual(rec[0], 0.0f) && allEqual(rec[1], 0.5f));
  d.device->_detachAudio(b.get());
  EXPECT_EQ(d.device->_freeBusCount(), kKyoBusCount);

  std::vector<std::string> lines;
  KyoSetLogSink([&](const std::string& line) { lines.push_back(line); });
  std::vector<std::shared_ptr<SentSource>> full;
  for (uint32_t i = 0; i <= kKyoBusCount; ++i) full.push_back(std::make_shared<SentSource>(send, 0, 1.0f));
  for (uint32_t i = 0; i < kKyoBusCount; ++i) ASSERT_TRUE(d.device->_attachAudio(full[i]));
  EXPECT_FALSE(d.device->_attachAudio(full.back()));
  KyoSetLogSink(nullptr);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].rfind("Error: No busses left for send [KyoAudioSend assigned to ", 0), 0u) << lines[0];
  EXPECT_NE(lines[1].find("could not attach [test source] to send [KyoAudioSend"), std::string::npos) << lines[1];
  // A freed bus is the next one taken.
  d.device->_detachAudio(full[7].get());
  EXPECT_TRUE(d.device->_attachAudio(full.back()));
  EXPECT_EQ(send->_busOfAudio(full.back().get()), 7u);
  for (auto& s : full) d.device->_detachAudio(s.get());
  EXPECT_FALSE(send->hasAudioAttached());
}

TEST(KyoAudioSend, RebuildsAttachesAndVolumesWhileTheDeviceIsPulled) {
  Device d(2, 48000, 128);
  auto send = sendOn(d);
  auto source = loadedSource(d, rampFile("send-threads.wav", 48000, 2, 48000 * 4));
  source->setSend(send);
  source->play();
  std::atomic<bool> done{false};
  std::thread render([&] {
    while (!done.load()) {
      KyoHAL::shared().pullOffline(d.id, 4);
      KyoHAL::shared().clearOfflineRecording(d.id);
    }
  });
  std::thread levels([&] {
    while (!done.load()) send->_setSplitterInputVolume(1.0f, 1), send->setAuxCrosspointVolume(0.5f, 0, 0);
  });
  auto bus = std::make_shared<KyoEffectBus>(2);
  bus->setEffects({effectWithURI(kGainURI)});
  auto constant = playing(d, send, 1, 0.125f);
  for (int round = 0; round < 12; ++round) {
    auto extra = playing(d, send, 0, 0.5f);
    round % 2 ? send->addEffectBus(bus) : send->removeAllEffectBusses();
    source->setAuxVolume(1.0f, 1, 0);
    d.device->_detachAudio(extra.get());
  }
  done = true;
  render.join();
  levels.join();
  // After the storm, a last rebuild plays the file from its start, exactly.
  send->removeAllEffectBusses();
  waitUntilReady(*source);
  source->setDefaultVolumes();
  auto rec = d.record(20);
  expectFrames(rec[0], [](int64_t i) { return rampSample(i, 0); });
  expectFrames(rec[1], [](int64_t i) { return rampSample(i, 1) + 0.125f; });
  source->hardStop();
  source->setSend(nullptr);
  d.device->_detachAudio(constant.get());
}
