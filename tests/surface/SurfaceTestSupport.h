#pragma once
// What the window's tests stand on: a cue that counts what it is told, a source
// that answers as told, windows made and closed per test, key events with the scan
// codes an X server would give.

#include <QKeyEvent>

#include <functional>
#include <memory>
#include <string>

#include "show/AudioCue.h"
#include "show/AudioCueSource.h"

class GridController;
class KyoAudioDevice;
class Workspace;
class WorkspaceController;

class CountingCue : public AudioCue {
 public:
  int downs = 0, ups = 0, hardStops = 0, panics = 0;
  void triggerDown() override { ++downs; }
  void triggerUp() override { ++ups; }
  void hardStop() override { ++hardStops; }

 protected:
  void _panicAction() override { ++panics; }
};

std::shared_ptr<CountingCue> countingCue(const std::string& name, const std::string& hotkey, int midiNote = -1);

// Sources that report a file valid or not, as set; installed for the test's life.
struct FakeSources {
  explicit FakeSources(bool valid = true);
  ~FakeSources();
  bool valid;
};

// A shown window of a new untitled show on the given device (null: the default
// output, "No Output" on a machine without sound); closed without questions at the end.
struct TestWindow {
  explicit TestWindow(std::shared_ptr<KyoAudioDevice> device = nullptr);
  ~TestWindow();
  WorkspaceController* window;
  Workspace* workspace() const;
  GridController* grid(int tab = 0) const;
};

// Pumps the event loop (and the clock's main-thread work) until the predicate holds;
// false after the limit, which only keeps a fault from hanging the run.
bool pumpUntil(const std::function<bool()>& predicate, double limitSeconds = 20);
// A drop of files on a slot, waited for; answers the cues made.
int dropFiles(GridController* grid, const QStringList& paths, unsigned index, bool withDefaultTriggers = true);

// evdev numbers of a few keys; the X server reports them plus 8.
constexpr quint32 kEvdevQ = 16, kEvdevW = 17, kEvdev1 = 2, kEvdev2 = 3, kEvdevEscape = 1, kEvdevDelete = 111;

void sendKey(QWidget* target, QEvent::Type type, int qtKey, quint32 evdev, const QString& text,
             Qt::KeyboardModifiers modifiers = Qt::NoModifier, bool autoRepeat = false);
// Press and release.
void tapKey(QWidget* target, int qtKey, quint32 evdev, const QString& text,
            Qt::KeyboardModifiers modifiers = Qt::NoModifier);
