// The output device on a real JACK server: a source sounds through it, the
// server's death closes it and tells its delegate, and a device whose server is
// gone refuses to open so that the caller can fall back.

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <string>
#include <thread>

#include "KyoAudioDeviceTestSupport.h"
#include "audio/KyoAudioDevice.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoNotificationCenter.h"
#include "support/JackServer.h"
#include "support/Waiting.h"

namespace {

using namespace sonto::test;

std::shared_ptr<KyoAudioDevice> jackDevice(const JackServer& server) {
  std::shared_ptr<KyoAudioDevice> device;
  eventually([&] {
    KyoHAL::shared().rescan();
    device = KyoAudioDevice::deviceWithUID("jack:" + server.name());
    return device != nullptr;
  });
  return device;
}

}  // namespace

TEST(KyoAudioDeviceJack, ASourceSoundsAndTheServersDeathClosesTheDevice) {
  if (!JackServer::installed()) GTEST_SKIP() << "jackd is not installed";
  JackServer server;
  ASSERT_TRUE(server.start()) << server.error();
  auto device = jackDevice(server);
  ASSERT_TRUE(device) << "the JACK device is not listed";
  EXPECT_EQ(device->outputChannels(), 2u);
  EXPECT_EQ(device->nominalSampleRate(), 48000.0);

  DeviceWatch watch;
  device->setDelegate(&watch);
  ASSERT_TRUE(device->open());
  auto source = std::make_shared<TestSource>(device.get(), std::vector<uint32_t>{0, 1});
  ASSERT_TRUE(device->_attachAudio(source));
  device->performAction<&TestSource::_play>(source.get());
  EXPECT_TRUE(eventually([&] { return source->renders() > 20; })) << "no cycles came from the server";

  server.kill(SIGKILL);
  EXPECT_TRUE(eventually([&] { return watch.died.load() > 0; })) << "the death was not told";
  EXPECT_TRUE(device->died());
  EXPECT_TRUE(eventually([&] { return !device->isOpen(); }));
  EXPECT_EQ(watch.died.load(), 1);
  // No more cycles once dead; closing again is harmless.
  const uint64_t renders = source->renders();
  KyoCurrentClock().sleepFor(0.05);
  EXPECT_EQ(source->renders(), renders);
  device->close();
  device->setDelegate(nullptr);
}

TEST(KyoAudioDeviceJack, ADeviceWhoseServerHasGoneFailsToOpenWithALogLine) {
  if (!JackServer::installed()) GTEST_SKIP() << "jackd is not installed";
  auto server = std::make_unique<JackServer>();
  ASSERT_TRUE(server->start()) << server->error();
  auto device = jackDevice(*server);
  ASSERT_TRUE(device);
  server->kill(SIGTERM);

  LogCapture log;
  EXPECT_FALSE(device->open());
  EXPECT_FALSE(device->isOpen());
  EXPECT_TRUE(log.contains("Error")) << log.all();

  // The caller falls back to the default output, which always exists.
  KyoHAL::shared().rescan();
  auto fallback = KyoAudioDevice::defaultOutputDevice();
  ASSERT_TRUE(fallback);
  EXPECT_NE(fallback->deviceUID(), "jack:" + server->name());
}

// A server that starts and ends is told as a change of the device list and of the
// default output, as notifications and to the class delegate, never on this thread.
TEST(KyoAudioDeviceJack, AServerComingAndGoingChangesTheListAndTheDefault) {
  if (!JackServer::installed()) GTEST_SKIP() << "jackd is not installed";
  struct ClassWatch : KyoAudioDeviceClassDelegate {
    std::atomic<int> list{0}, output{0};
    void audioHardwareDeviceListDidChange() override { list.fetch_add(1); }
    void audioHardwareDefaultOutputDeviceDidChange() override { output.fetch_add(1); }
  } delegate;
  std::atomic<int> listPosts{0}, outputPosts{0};
  std::atomic<bool> postedHere{false};
  const auto self = std::this_thread::get_id();
  auto& center = KyoNotificationCenter::defaultCenter();
  const auto listToken =
      center.addObserver(kKyoAudioHardwareDeviceListDidChangeNotification, [&](const KyoNotification&) {
        listPosts.fetch_add(1);
        if (std::this_thread::get_id() == self) postedHere = true;
      });
  const auto outputToken = center.addObserver(kKyoAudioHardwareDefaultOutputDeviceDidChangeNotification,
                                              [&](const KyoNotification&) { outputPosts.fetch_add(1); });
  KyoAudioDevice::setDelegateOfClass(&delegate);
  ASSERT_TRUE(KyoAudioDevice::defaultOutputDevice());  // the catalogue is listening from here on

  JackServer server;
  ASSERT_TRUE(server.start()) << server.error();
  const std::string uid = "jack:" + server.name();
  EXPECT_TRUE(eventually([&] {
    auto device = KyoAudioDevice::defaultOutputDevice();
    return device && device->deviceUID() == uid && listPosts.load() > 0 && outputPosts.load() > 0;
  })) << "the server's arrival was not told";
  EXPECT_TRUE(eventually([&] { return delegate.list.load() > 0 && delegate.output.load() > 0; }));

  const int listBefore = listPosts.load(), outputBefore = outputPosts.load();
  server.kill(SIGTERM);
  EXPECT_TRUE(eventually([&] {
    auto device = KyoAudioDevice::defaultOutputDevice();
    return device && device->deviceUID() != uid && listPosts.load() > listBefore && outputPosts.load() > outputBefore;
  })) << "the server's end was not told";
  EXPECT_FALSE(postedHere.load());

  KyoAudioDevice::setDelegateOfClass(nullptr);
  center.removeObserver(listToken);
  center.removeObserver(outputToken);
}
