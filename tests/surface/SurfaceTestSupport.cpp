#include "SurfaceTestSupport.h"

#include <QApplication>
#include <QSignalSpy>

#include "foundation/KyoClock.h"
#include "show/Workspace.h"
#include "surface/GridController.h"
#include "surface/SontoAlerts.h"
#include "surface/WorkspaceController.h"

namespace {
class FakeSource : public AudioCueSource {
 public:
  explicit FakeSource(bool valid) : m_valid(valid) {}
  void setDevice(std::shared_ptr<KyoAudioDevice> device) override { m_device = std::move(device); }
  std::shared_ptr<KyoAudioDevice> sharedDevice() const override { return m_device; }
  void setAlias(std::shared_ptr<KyoAlias>) override {}
  bool isValid() const override { return m_valid; }
  uint32_t fileChannels() const override { return 2; }
  double fileLengthInSeconds() const override { return m_valid ? 10.0 : 0.0; }
  void setDefaultVolumes() override {}
  void setCrosspointVolume(float, uint32_t, uint32_t) override {}
  void setSlice(double, double, int) override {}
  void goToTime(double) override {}
  void hardStop() override {}

 private:
  bool m_valid;
  std::shared_ptr<KyoAudioDevice> m_device;
};
}  // namespace

std::shared_ptr<CountingCue> countingCue(const std::string& name, const std::string& hotkey, int midiNote) {
  auto cue = std::make_shared<CountingCue>();
  cue->setName(name);
  cue->setHotkey(hotkey);
  if (midiNote >= 0) cue->setMidiNote(midiNote);
  return cue;
}

FakeSources::FakeSources(bool isValid) : valid(isValid) {
  AudioCue::setSourceFactory([this] { return std::make_unique<FakeSource>(valid); });
}

FakeSources::~FakeSources() { AudioCue::setSourceFactory(nullptr); }

TestWindow::TestWindow(std::shared_ptr<KyoAudioDevice> device)
    : window(new WorkspaceController(device ? std::make_shared<Workspace>(device) : std::make_shared<Workspace>())) {
  window->show();
  QApplication::processEvents();
}

TestWindow::~TestWindow() {
  SontoAlerts::setSaveQuestionHandler([](const QString&, bool) { return SontoAlerts::Answer::DontSave; });
  window->close();
  SontoAlerts::setSaveQuestionHandler({});
  delete window;
}

GridController* TestWindow::grid(int tab) const { return window->controllerForTab(tab); }

Workspace* TestWindow::workspace() const { return window->workspace(); }

bool pumpUntil(const std::function<bool()>& predicate, double limitSeconds) {
  KyoPlainClock real;
  const double end = real.monotonicSeconds() + limitSeconds;
  while (!predicate()) {
    if (real.monotonicSeconds() > end) return false;
    QApplication::processEvents(QEventLoop::AllEvents, 5);
    real.sleepFor(0.001);
  }
  return true;
}

int dropFiles(GridController* grid, const QStringList& paths, unsigned index, bool withDefaultTriggers) {
  QSignalSpy finished(grid, &GridController::importFinished);
  grid->gridViewDroppedFiles(paths, index, withDefaultTriggers);
  if (!pumpUntil([&] { return finished.count() > 0; })) return -1;
  return finished.first().first().toInt();
}

void sendKey(QWidget* target, QEvent::Type type, int qtKey, quint32 evdev, const QString& text,
             Qt::KeyboardModifiers modifiers, bool autoRepeat) {
  QKeyEvent event(type, qtKey, modifiers, evdev + 8, 0, 0, text, autoRepeat);
  QApplication::sendEvent(target, &event);
}

void tapKey(QWidget* target, int qtKey, quint32 evdev, const QString& text, Qt::KeyboardModifiers modifiers) {
  sendKey(target, QEvent::KeyPress, qtKey, evdev, text, modifiers);
  sendKey(target, QEvent::KeyRelease, qtKey, evdev, text, modifiers);
}
