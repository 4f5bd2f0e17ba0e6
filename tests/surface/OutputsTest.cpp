// The output popup and the meter on the real window: rows per channel pair of the
// catalogue's devices, the device objects of surviving rows kept across rebuilds, a
// show whose device is not there told once with its row, moves to another pair and
// another device, and the meter fed from a known signal on the show's channels.
#include <QComboBox>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <csignal>
#include <cmath>
#include <cstdio>

#include "SoundTestSupport.h"
#include "SurfaceTestSupport.h"
#include "audio/KyoAudioDeviceTestSupport.h"
#include "show/AudioCue.h"
#include "show/Cart.h"
#include "show/Workspace.h"
#include "surface/CueInspectorController.h"
#include "surface/GridController.h"
#include "surface/InspectorController.h"
#include "surface/SontoAlerts.h"
#include "surface/SontoAudioLevelView.h"
#include "surface/WorkspaceController.h"
#include "support/JackServer.h"

using namespace sonto::test;

namespace {

QStringList itemsOf(const QComboBox* box) {
  QStringList items;
  for (int i = 0; i < box->count(); ++i) items << box->itemText(i);
  return items;
}

QStringList catalogueTitles() {
  QStringList titles;
  for (const auto& device : KyoAudioDevice::allDevices()) {
    for (long channel = 1; channel < static_cast<long>(device->outputChannels()); ++channel) {
      titles << WorkspaceController::outputTitle(*device, channel);
    }
  }
  return titles;
}

struct Alerts {
  QStringList seen;
  Alerts() {
    SontoAlerts::setAlertHandler([this](const QString& message, const QString&) { seen << message; });
  }
  ~Alerts() { SontoAlerts::setAlertHandler({}); }
};

}  // namespace

TEST(Outputs, RowsFollowTheCatalogueKeepTheirDevicesAndMoveTheShow) {
  Alerts alerts;
  TestWindow t(KyoAudioDevice::deviceWithUID("null"));
  auto* outputs = t.window->findChild<QComboBox*>(QStringLiteral("outputs"));
  ASSERT_TRUE(outputs);
  const QStringList titles = catalogueTitles();
  ASSERT_TRUE(titles.contains("No Output - channels 1/2")) << titles.join(", ").toStdString();
  EXPECT_EQ(itemsOf(outputs), titles);
  EXPECT_EQ(outputs->currentText(), "No Output - channels 1/2");
  EXPECT_TRUE(alerts.seen.isEmpty());
  // The inspector's popup has the same rows.
  auto* cueOutput = t.window->inspectorController()->cueInspectorController()->view()->findChild<QComboBox*>(
      QStringLiteral("output"));
  ASSERT_TRUE(cueOutput);
  EXPECT_EQ(itemsOf(cueOutput), titles);

  // A rebuild keeps the very objects of the rows that are still there.
  std::vector<KyoAudioDevice*> before;
  for (const auto& row : t.window->outputDevices()) before.push_back(row.device.get());
  t.window->updateOutputDevices();
  ASSERT_EQ(t.window->outputDevices().size(), before.size());
  for (size_t i = 0; i < before.size(); ++i) EXPECT_EQ(t.window->outputDevices()[i].device.get(), before[i]) << i;

  // Another device moves the show and marks it changed; another pair of the same
  // device only routes (no document change).
  const auto& rows = t.window->outputDevices();
  auto other = std::find_if(rows.begin(), rows.end(), [](const auto& row) { return row.device->deviceUID() != "null"; });
  if (other != rows.end()) {
    t.window->changeOutputDevice(static_cast<int>(other - rows.begin()));
    EXPECT_EQ(t.workspace()->audioDevice(), other->device);
    EXPECT_TRUE(t.workspace()->isDocumentEdited());
    t.window->changeOutputDevice(static_cast<int>(std::find_if(rows.begin(), rows.end(), [](const auto& row) {
                                                    return row.device->deviceUID() == "null";
                                                  }) - rows.begin()));
    EXPECT_EQ(t.workspace()->audioDevice()->deviceUID(), "null");
  }
  t.window->changeOutputDevice(outputs->count());  // past the rows: nothing happens
  EXPECT_EQ(t.workspace()->audioDevice()->deviceUID(), "null");
}

TEST(Outputs, AShowOnADeviceNotListedSaysSoOnceAndTheMeterReadsItsPair) {
  Alerts alerts;
  EngineSources engine;
  Offline out;
  TestWindow t(out.device);
  auto* outputs = t.window->findChild<QComboBox*>(QStringLiteral("outputs"));
  EXPECT_EQ(outputs->currentText(), "Device missing");
  EXPECT_EQ(alerts.seen, QStringList{"Device disappeared"});
  EXPECT_EQ(t.workspace()->audioDevice(), out.device) << "the show stays bound to its device";

  // A full-scale sine on the left, half of it on the right: the meter shows their
  // power on its scale (a square root below 0 dB), and holds when nothing new comes.
  auto* meter = t.window->audioLevel();
  EXPECT_EQ(meter->leftChannelPower(), SontoAudioLevelView::kSilence);
  std::vector<std::shared_ptr<TestSource>> sources{
      std::make_shared<TestSource>(out.device.get(), std::vector<uint32_t>{0}, TestSource::Signal::Sine, 1.0f),
      std::make_shared<TestSource>(out.device.get(), std::vector<uint32_t>{1}, TestSource::Signal::Sine, 0.5f)};
  for (auto& s : sources) {
    ASSERT_TRUE(out.device->_attachAudio(s));
    s->_play();
  }
  ASSERT_EQ(KyoHAL::shared().pullOffline(out.id, 200), 0);
  t.window->updateAudioLevels();
  const float leftDb = out.device->outPostAveragePowerAtChannel(0);
  EXPECT_NEAR(leftDb, -3.01, 0.5);
  EXPECT_FLOAT_EQ(meter->leftChannelPower(), SontoAudioLevelView::meterValueForDecibels(leftDb));
  EXPECT_LT(meter->rightChannelPower(), meter->leftChannelPower());
  EXPECT_GT(meter->leftChannelPeak(), meter->leftChannelPower());
  for (auto& s : sources) out.device->_detachAudio(s.get());
}

TEST(Outputs, TheMeterScaleAndItsGeometry) {
  const struct {
    float decibels, value;
  } scale[] = {{-200, -4}, {-60, -4}, {-15, -2}, {0, 0}, {6, 0.5f}, {12, 1}, {24, 2}};
  for (const auto& s : scale) EXPECT_FLOAT_EQ(SontoAudioLevelView::meterValueForDecibels(s.decibels), s.value);

  SontoAudioLevelView meter;
  meter.resize(201, 48);
  const QRectF bar = meter.barRect(0);
  EXPECT_EQ(bar.width(), 200.0);
  EXPECT_EQ(bar.height(), 12.0);
  EXPECT_LT(bar.bottom(), meter.barRect(1).top()) << "left above right";
  EXPECT_NEAR(meter.litRect(0, 0).width(), 160.0, 1e-4) << "0 dB lights 80 %";
  EXPECT_DOUBLE_EQ(meter.litRect(0, 1).width(), 200.0);
  EXPECT_DOUBLE_EQ(meter.litRect(0, 2).width(), 200.0) << "never past the bar";
  EXPECT_TRUE(meter.litRect(0, -4).isEmpty());
  EXPECT_GT(meter.litRect(0, -3.99f).width(), 0.0);
  EXPECT_EQ(meter.peakRect(1, 0).width(), 1.0);
  EXPECT_NEAR(meter.peakRect(1, 0).left(), bar.left() + 160.0, 1e-4);
  // An equal value asks for no painting.
  meter.setLeftChannelPower(-4.0f);
  EXPECT_EQ(meter.leftChannelPower(), -4.0f);
}

// A JACK server started, lost and started again under an open window: its rows come
// and go, the other rows keep their device objects, the show on it is told once that
// its device is gone, and takes the server again when the operator chooses it.
TEST(OutputsJack, AServerComingAndGoingUnderTheWindow) {
  if (!JackServer::installed()) GTEST_SKIP() << "jackd is not installed";
  Alerts alerts;
  EngineSources engine;
  TestWindow t(KyoAudioDevice::deviceWithUID("null"));
  auto* outputs = t.window->findChild<QComboBox*>(QStringLiteral("outputs"));
  auto jackRow = [&]() -> int {
    const auto& rows = t.window->outputDevices();
    for (size_t i = 0; i < rows.size(); ++i)
      if (rows[i].device->deviceUID().rfind("jack:", 0) == 0) return static_cast<int>(i);
    return -1;
  };
  auto jackRows = [&] {
    const auto& rows = t.window->outputDevices();
    return std::count_if(rows.begin(), rows.end(),
                         [](const auto& row) { return row.device->deviceUID().rfind("jack:", 0) == 0; });
  };
  auto nullDevice = [&] {
    for (const auto& row : t.window->outputDevices())
      if (row.device->deviceUID() == "null") return row.device.get();
    return static_cast<KyoAudioDevice*>(nullptr);
  };
  ASSERT_EQ(jackRow(), -1);
  KyoAudioDevice* kept = nullDevice();

  JackServer server;
  ASSERT_TRUE(server.start(128, 8)) << server.error();
  ASSERT_TRUE(pumpUntil([&] { return jackRow() >= 0; })) << itemsOf(outputs).join(", ").toStdString();
  EXPECT_EQ(jackRows(), 7) << "8 ports: the pairs 1/2 to 7/8";
  EXPECT_EQ(nullDevice(), kept) << "a surviving device keeps its object";
  t.window->changeOutputDevice(jackRow());
  ASSERT_EQ(t.workspace()->audioDevice()->deviceUID().rfind("jack:", 0), 0u);
  EXPECT_TRUE(alerts.seen.isEmpty());
  // Its JACK client carries the show's name, not the order of opening.
  jack_status_t status{};
  jack_client_t* probe = jack_client_open("probe", jack_options_t(JackNoStartServer | JackServerName), &status,
                                          server.name().c_str());
  ASSERT_TRUE(probe);
  const std::string client = t.workspace()->clientName();
  EXPECT_EQ(client, "Sonto " + t.workspace()->displayName().toStdString());
  const char** ports = jack_get_ports(probe, ("^" + client + ":").c_str(), nullptr, 0);
  EXPECT_TRUE(ports && ports[0]) << client;
  jack_free(ports);
  jack_client_close(probe);

  // A long cue sounding on the server when it goes.
  ASSERT_EQ(dropFiles(t.grid(), {QString::fromStdString(ramp("on-jack.wav", 48000 * 20))}, 0), 1);
  auto* cue = dynamic_cast<AudioCue*>(t.grid()->cart()->cueAtIndex(0));
  ASSERT_TRUE(readyToPlay(cue));
  cue->play();
  ASSERT_TRUE(pumpUntil([&] { return cue->playing(); }));

  const double lost = KyoMonotonicSeconds();
  server.kill(SIGKILL);
  ASSERT_TRUE(pumpUntil([&] { return !alerts.seen.isEmpty() && jackRow() < 0; }));
  std::printf("[ figure ] device lost to alert and rebuilt menu: %.0f ms\n", (KyoMonotonicSeconds() - lost) * 1000);
  EXPECT_EQ(alerts.seen, QStringList{"Device disappeared"});
  EXPECT_EQ(outputs->currentText(), "Device missing");
  EXPECT_EQ(nullDevice(), kept);
  EXPECT_TRUE(pumpUntil([&] { return !cue->playing(); }, 5)) << "a cue on the lost device stops";
  t.workspace()->hardStopAll();  // the show goes on working, on nothing

  ASSERT_TRUE(server.start(128, 2)) << server.error();
  ASSERT_TRUE(pumpUntil([&] { return jackRow() >= 0; }));
  EXPECT_EQ(jackRows(), 1) << "2 ports: one pair";
  EXPECT_EQ(outputs->currentText(), "Device missing") << "the show's own object died: the operator chooses";
  t.window->changeOutputDevice(jackRow());
  EXPECT_FALSE(t.workspace()->audioDevice()->died());
  EXPECT_TRUE(t.workspace()->audioDevice()->isOpen());
  server.kill(SIGTERM);
}
