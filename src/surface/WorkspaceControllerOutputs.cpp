// The output side of the workspace window: the popup of device channel pairs, which
// must survive an interface unplugged mid-show, and the meter timer that carries the
// device's levels to the meter 20 times a second.

#include <QComboBox>
#include <QPointer>

#include <algorithm>
#include <atomic>
#include <memory>

#include "audio/KyoAudioDevice.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"
#include "show/Cart.h"
#include "show/Workspace.h"
#include "surface/CueInspectorController.h"
#include "surface/InspectorController.h"
#include "surface/SontoAlerts.h"
#include "surface/SontoAudioLevelView.h"
#include "surface/WorkspaceController.h"

namespace {

constexpr double kMeterInterval = 0.05;
const QString kDeviceMissing = QStringLiteral("Device missing");

}  // namespace

QString WorkspaceController::outputTitle(const KyoAudioDevice& device, long channel) {
  return QStringLiteral("%1 - channels %2/%3").arg(QString::fromStdString(device.name())).arg(channel).arg(channel + 1);
}

void WorkspaceController::startOutputs() {
  // The catalogue tells on a thread of the device layer; the rebuild, and its alert,
  // belong to the main thread. A burst of changes (a server's ports going one by
  // one) is one rebuild: one alert, not one per port.
  QPointer<WorkspaceController> self(this);
  auto pending = std::make_shared<std::atomic<bool>>(false);
  m_deviceListObserver = KyoScopedObserver(
      KyoNotificationCenter::defaultCenter(), kKyoAudioHardwareDeviceListDidChangeNotification,
      [self, pending](const KyoNotification&) {
        if (pending->exchange(true)) return;
        KyoCurrentClock().runOnMain(
            [self, pending] {
              pending->store(false);
              if (self && self->m_workspace) self->updateOutputDevices();
            },
            false);
      });
  updateOutputDevices();
  m_meterTimer = KyoCurrentClock().startTimer(kMeterInterval, true, [self] {
    if (self) self->updateAudioLevels();
  });
}

void WorkspaceController::stopOutputs() {
  m_deviceListObserver.reset();
  if (m_meterTimer) {
    KyoCurrentClock().stopTimer(m_meterTimer);
    m_meterTimer = 0;
  }
}

void WorkspaceController::updateOutputDevices() {
  if (!m_workspace) return;
  KYO_LOG_AT(3, "Refreshing output devices");
  // Rows whose device lives on keep their device object: the show's open device is
  // one of them, and a new object for the same device would be a different one.
  std::vector<OutputRow> survivors;
  for (const OutputRow& row : m_outputDevices) {
    if (row.device && !row.device->died()) survivors.push_back(row);
  }
  m_outputDevices.clear();
  QStringList titles;
  for (const auto& device : KyoAudioDevice::allDevices()) {
    const long outputs = static_cast<long>(device->outputChannels());
    if (outputs < 2 || device->name().find("AirPlay") != std::string::npos) continue;
    const std::string uid = device->deviceUID();
    for (long channel = 1; channel < outputs; ++channel) {
      auto kept = std::find_if(survivors.begin(), survivors.end(), [&](const OutputRow& row) {
        return row.channel == channel && row.device->deviceUID() == uid;
      });
      OutputRow row{kept != survivors.end() ? kept->device : KyoAudioDevice::deviceWithUID(uid), channel};
      if (!row.device) continue;
      titles << outputTitle(*row.device, channel);
      m_outputDevices.push_back(std::move(row));
    }
  }
  const QSignalBlocker blocker(m_outputs);
  m_outputs->clear();
  m_outputs->addItems(titles);
  if (auto* cueInspector = m_inspectorController->cueInspectorController()) {
    std::vector<CueInspectorController::OutputChoice> choices;
    for (const OutputRow& row : m_outputDevices) choices.push_back({row.device, row.channel});
    cueInspector->setOutputs(titles, std::move(choices));
  }

  KYO_LOG_AT(3, "Attempting to use previously selected device...");
  const auto& current = m_workspace->audioDevice();
  const bool found =
      current && !current->died() &&
      std::any_of(m_outputDevices.begin(), m_outputDevices.end(),
                  [&](const OutputRow& row) { return row.device->deviceUID() == current->deviceUID(); });
  if (found) {
    KYO_LOG_AT(3, "success");
    // By title: a channel pair that no longer exists selects nothing.
    m_outputs->setCurrentIndex(m_outputs->findText(outputTitle(*current, m_workspace->deviceChannel())));
  } else {
    KYO_LOG_AT(3, "previously selected device is missing");
    // What sounded on a device that died will not end by itself: no cycle comes to
    // finish it. It stops now, so that the pads say what is heard.
    if (current && current->died()) m_workspace->hardStopAll();
    m_outputs->insertSeparator(m_outputs->count());
    m_outputs->addItem(kDeviceMissing);
    m_outputs->setCurrentIndex(m_outputs->count() - 1);
    KyoLog("The output of %s has disappeared; reconnect it or choose another output",
           m_workspace->displayName().toUtf8().constData());
    SontoAlerts::showAlert(this, QStringLiteral("Device disappeared"),
                           QStringLiteral("The output device for this document has disappeared. Please reconnect "
                                          "it or choose a different device."));
  }
  KYO_LOG_AT(3, "Finished refreshing devices");
  // A cue on a device that went, or came back, is broken or mended.
  refreshBrokenCues();
}

void WorkspaceController::changeOutputDevice(int index) {
  // The separator and "Device missing" lie past the rows: nothing to move to.
  if (!m_workspace || index < 0 || static_cast<size_t>(index) >= m_outputDevices.size()) return;
  const OutputRow row = m_outputDevices[static_cast<size_t>(index)];
  const auto& current = m_workspace->audioDevice();
  // A device that comes back keeps its id here, so a dead object of the same id is
  // another device: the show moves onto the live one.
  if (current && !current->died() && current->deviceID() == row.device->deviceID()) {
    // Another pair of the same device: routed at once, the device stays open, and
    // the document is not changed.
    if (row.channel != m_workspace->deviceChannel()) m_workspace->setDeviceChannel(row.channel);
    return;
  }
  if (!m_workspace->changeOutputDevice(row.device, row.channel)) return;
  m_workspace->updateChangeCount(Workspace::ChangeType::Done);
  refreshBrokenCues();
}

void WorkspaceController::updateAudioLevels() {
  if (!m_workspace) return;
  const auto& device = m_workspace->audioDevice();
  // A missing device leaves the meter as it was.
  if (!device || device->died()) return;
  const auto left = static_cast<uint32_t>(m_workspace->deviceChannel() - 1);
  const auto meter = [](float decibels) { return SontoAudioLevelView::meterValueForDecibels(decibels); };
  m_audioLevel->setLeftChannelPower(meter(device->outPostAveragePowerAtChannel(left)));
  m_audioLevel->setLeftChannelPeak(meter(device->outPostPeakHoldLevelAtChannel(left)));
  m_audioLevel->setRightChannelPower(meter(device->outPostAveragePowerAtChannel(left + 1)));
  m_audioLevel->setRightChannelPeak(meter(device->outPostPeakHoldLevelAtChannel(left + 1)));
}
