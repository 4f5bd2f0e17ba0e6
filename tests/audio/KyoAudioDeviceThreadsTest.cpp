// The engine under real threads: a render thread pulls the offline device while this
// thread attaches, detaches, writes volumes and hands over batches; a listener-side
// thread reports the device dead. Run under ThreadSanitizer too.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "KyoAudioDeviceTestSupport.h"
#include "foundation/KyoNotificationCenter.h"
#include "support/AllocationCounter.h"

using namespace sonto::test;

namespace {

// Pulls one cycle at a time until told to stop or the device stops answering.
class RenderThread {
 public:
  RenderThread(OfflineDevice& dev, uint32_t warmUpCycles) : m_dev(dev) {
    m_thread = std::thread([this, warmUpCycles] {
      uint64_t cycles = 0;
      bool watching = false;
      while (!m_stop.load()) {
        if (!watching && cycles == warmUpCycles) {
          sonto::test::watchAllocationsOnThisThread(true);
          watching = true;
        }
        // Cleared every cycle, the recording keeps its capacity: the pull allocates nothing.
        int32_t status = m_dev.pull(1);
        KyoHAL::shared().clearOfflineRecording(m_dev.id);
        if (status != 0) {
          m_lastStatus.store(status);
          break;
        }
        m_cycles.store(++cycles);
      }
      if (watching) sonto::test::watchAllocationsOnThisThread(false);
      m_ended.store(true);
    });
  }
  ~RenderThread() { stop(); }
  void stop() {
    m_stop.store(true);
    if (m_thread.joinable()) m_thread.join();
  }
  // Spins until the render thread has done n more cycles (or ended).
  void waitCycles(uint64_t n) {
    const uint64_t target = m_cycles.load() + n;
    while (m_cycles.load() < target && !m_ended.load()) std::this_thread::yield();
  }
  uint64_t cycles() const { return m_cycles.load(); }
  bool ended() const { return m_ended.load(); }
  int32_t lastStatus() const { return m_lastStatus.load(); }

 private:
  OfflineDevice& m_dev;
  std::thread m_thread;
  std::atomic<bool> m_stop{false}, m_ended{false};
  std::atomic<uint64_t> m_cycles{0};
  std::atomic<int32_t> m_lastStatus{0};
};

TEST(AudioDeviceThreads, MainThreadChangesWhileCyclesRenderAllocateNothingOnTheRenderThread) {
  OfflineDevice dev{8, 48000.0, 128};
  ASSERT_TRUE(dev.device->open());
  std::vector<std::shared_ptr<TestSource>> sources;
  for (uint32_t i = 0; i < 64; ++i) {
    sources.push_back(std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{i % 8, (i + 1) % 8},
                                                   TestSource::Signal::Constant, 0.01f));
    ASSERT_TRUE(dev.device->_attachAudio(sources.back()));
  }
  sonto::test::resetWatchedAllocations();
  {
    RenderThread render(dev, 20);
    render.waitCycles(25);
    for (int round = 0; round < 40; ++round) {
      // Batches of starts and stops.
      dev.device->startSyncedActions();
      for (size_t i = round % 2; i < sources.size(); i += 2)
        dev.device->performAction<&TestSource::_play>(sources[i].get());
      for (size_t i = 1 - round % 2; i < sources.size(); i += 2)
        dev.device->performAction<&TestSource::_stop>(sources[i].get());
      dev.device->endSyncedActions();
      // Detach and attach again (the bus comes back the same).
      auto& s = sources[size_t(round) % sources.size()];
      auto bus = dev.device->_busOfAudio(s.get());
      dev.device->_detachAudio(s.get());
      ASSERT_TRUE(dev.device->_attachAudio(s));
      EXPECT_EQ(dev.device->_busOfAudio(s.get()), bus);
      // Volumes of every kind.
      dev.device->setMasterVolume(round % 2 ? 0.5f : 1.0f);
      dev.device->setVolume(0.75f, 1 + uint32_t(round) % 8, 0);
      dev.device->setVolume(0.5f, 1 + uint32_t(round) % 8, 1 + uint32_t(round + 3) % 8);
      dev.device->setOutputVolume(0.9f, uint32_t(round) % 8);
      (void)dev.device->outPostPeakHoldLevelAtChannel(uint32_t(round) % 8);
      render.waitCycles(1);
    }
    render.waitCycles(5);
    EXPECT_FALSE(render.ended()) << "status " << render.lastStatus();
    render.stop();
    EXPECT_GT(render.cycles(), 40u);
  }
  EXPECT_EQ(sonto::test::watchedAllocations(), 0u);
  // Every source kept rendering once per cycle on its bus.
  EXPECT_GT(sources.back()->renders(), 40u);
}

TEST(AudioDeviceThreads, CloseWhileRenderingReturnsAndTheRenderThreadSeesTheStop) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    OfflineDevice dev{2, 48000.0, 64};
    ASSERT_TRUE(dev.device->open());
    auto s = std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{0});
    ASSERT_TRUE(dev.device->_attachAudio(s));
    s->_play();
    RenderThread render(dev, 1000000);
    render.waitCycles(3);
    // Queue a batch and close at once: the batch is dropped, the render thread ends.
    dev.device->startSyncedActions();
    dev.device->performAction<&TestSource::_stop>(s.get());
    dev.device->endSyncedActions();
    dev.device->close();
    while (!render.ended()) std::this_thread::yield();
    EXPECT_EQ(render.lastStatus(), kKyoHALNotRunningError);
    EXPECT_FALSE(dev.device->isOpen());
  }
}

TEST(AudioDeviceThreads, EngageCountsUsersAndOpensOnceAndClosesWithTheLast) {
  OfflineDevice dev{2, 48000.0, 64};
  DeviceWatch counter;
  dev.device->setDelegate(&counter);
  dev.device->engage();
  dev.device->engage();
  EXPECT_TRUE(dev.device->isOpen());
  EXPECT_EQ(dev.device->engaged(), 2);
  EXPECT_EQ(counter.opened.load(), 1);
  dev.device->disengage();
  EXPECT_TRUE(dev.device->isOpen());
  dev.device->disengage();
  EXPECT_FALSE(dev.device->isOpen());
  EXPECT_EQ(dev.device->engaged(), 0);
  // One more disengage than engages doesn't go below zero.
  dev.device->disengage();
  EXPECT_EQ(dev.device->engaged(), 0);
  // Opened without engaging, a disengage at zero closes it; bus 500 is no bus.
  ASSERT_TRUE(dev.device->open());
  EXPECT_EQ(dev.device->_setEnabled(true, kKyoBusCount), 0);
  dev.device->disengage();
  EXPECT_FALSE(dev.device->isOpen());
  EXPECT_EQ(dev.device->engaged(), 0);
  dev.device->setDelegate(nullptr);
}

// --- Death ---

// The device layer reports a death as a change of 'livn' on its listener thread, which
// reaches the device as its property notification; this posts the same from a thread
// of its own while cycles render.
void reportDeath(KyoAudioDevice* device) {
  std::thread listener([device] {
    KyoUserInfo info;
    info["AudioObjectID"] = uint32_t(device->deviceID());
    info["PropertySelector"] = uint32_t(kKyoPropertyDeviceIsAlive);
    info["PropertyScope"] = uint32_t(kKyoScopeGlobal);
    info["PropertyElement"] = uint32_t(0);
    KyoNotificationCenter::defaultCenter().postNotification(kKyoAudioDevicePropertyDidChangeNotification, device,
                                                            std::move(info));
  });
  listener.join();
}

TEST(AudioDeviceDeath, ADeadDeviceClosesItselfAndTellsItsDelegateWithoutHanging) {
  OfflineDevice dev{2, 48000.0, 64};
  DeviceWatch watch;
  dev.device->setDelegate(&watch);
  ASSERT_TRUE(dev.device->open());
  auto s = std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{0});
  ASSERT_TRUE(dev.device->_attachAudio(s));
  s->_play();
  {
    RenderThread render(dev, 1000000);
    render.waitCycles(3);
    reportDeath(dev.device.get());
    while (!render.ended()) std::this_thread::yield();
    EXPECT_EQ(render.lastStatus(), kKyoHALNotRunningError);
  }
  EXPECT_TRUE(dev.device->died());
  EXPECT_FALSE(dev.device->isOpen());
  EXPECT_EQ(watch.died.load(), 1);
  EXPECT_EQ(watch.closed.load(), 1);
  EXPECT_FALSE(watch.wasOpenWhenTold.load());
  EXPECT_FALSE(dev.device->_busOfAudio(s.get()));
  dev.device->setDelegate(nullptr);
}

TEST(AudioDeviceDeath, NewsOfAnotherDeviceOrAClosedDeviceIsHandledQuietly) {
  OfflineDevice a{2, 48000.0, 64}, b{2, 48000.0, 64};
  DeviceWatch watchA, watchB;
  a.device->setDelegate(&watchA);
  b.device->setDelegate(&watchB);
  ASSERT_TRUE(a.device->open());
  reportDeath(b.device.get());  // b was never open
  EXPECT_TRUE(b.device->died());
  EXPECT_EQ(watchB.died.load(), 1);
  EXPECT_EQ(watchB.closed.load(), 0);
  EXPECT_FALSE(a.device->died());
  EXPECT_TRUE(a.device->isOpen());
  EXPECT_EQ(watchA.died.load(), 0);
  a.device->setDelegate(nullptr);
  b.device->setDelegate(nullptr);
}

// --- The catalogue over the device layer ---

TEST(AudioDeviceCatalogue, PropertiesComeFromTheLayerAndAGoneDeviceReadsAsFailures) {
  KyoAudioObjectID id = KyoHAL::shared().createOfflineDevice(6, 44100.0, 256, 2);
  auto device = KyoAudioDevice::deviceWithID(id);
  ASSERT_TRUE(device);
  EXPECT_EQ(device->outputChannels(), 6u);
  EXPECT_EQ(device->inputChannels(), 2u);
  EXPECT_EQ(device->nominalSampleRate(), 44100.0);
  EXPECT_EQ(device->bufferSizeInFrames(), 256u);
  EXPECT_EQ(device->bufferSize(), 256u * sizeof(float));
  EXPECT_FALSE(device->deviceUID().empty());
  EXPECT_EQ(device->outputStreamDescription().channels(), 6u);
  auto byUID = KyoAudioDevice::deviceWithUID(device->deviceUID());
  ASSERT_TRUE(byUID);
  EXPECT_EQ(byUID->deviceID(), id);
  EXPECT_NE(byUID.get(), device.get());  // a new object each time

  KyoHAL::shared().destroyOfflineDevice(id);
  EXPECT_EQ(device->outputChannels(), 0u);
  EXPECT_EQ(device->name(), "");
  EXPECT_FALSE(device->open());
  EXPECT_FALSE(KyoAudioDevice::deviceWithID(0));
  EXPECT_FALSE(KyoAudioDevice::deviceWithUID("no such device"));
  EXPECT_FALSE(KyoAudioDevice::deviceWithName("no such device"));
  EXPECT_FALSE(KyoAudioDevice::createAggregateNamed("agg", {"a", "b"}));
  EXPECT_FALSE(device->fullSubDeviceList());
}

}  // namespace
