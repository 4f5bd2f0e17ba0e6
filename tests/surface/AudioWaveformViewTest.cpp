// The waveform view in a plain scroll area, driven by mouse and wheel events as the
// window would deliver them, on cues whose source knows a real file.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <QApplication>
#include <QImage>
#include <QMouseEvent>
#include <QScrollArea>
#include <QScrollBar>
#include <QWheelEvent>
#include <filesystem>

#include "SurfaceTestSupport.h"
#include "foundation/KyoAlias.h"
#include "support/TestFiles.h"
#include "surface/AudioWaveform.h"
#include "surface/AudioWaveformView.h"

namespace {

// A source that knows its file and where it was sent; it never sounds.
class FileSource : public AudioCueSource {
 public:
  static inline double lengthOverride = 0;  // seconds; 0 takes the file's
  static inline double lastGoTo = -1;
  void setDevice(std::shared_ptr<KyoAudioDevice>) override {}
  std::shared_ptr<KyoAudioDevice> sharedDevice() const override { return nullptr; }
  void setAlias(std::shared_ptr<KyoAlias> alias) override {
    m_alias = alias;
    SF_INFO info{};
    if (SNDFILE* f = alias ? sf_open(alias->fullPath().c_str(), SFM_READ, &info) : nullptr) {
      m_length = double(info.frames) / info.samplerate;
      sf_close(f);
    }
    if (lengthOverride > 0) m_length = lengthOverride;
  }
  bool isValid() const override { return m_length > 0; }
  uint32_t fileChannels() const override { return 1; }
  double fileLengthInSeconds() const override { return m_length; }
  void goToTime(double seconds) override { lastGoTo = seconds; }
  std::shared_ptr<KyoAlias> alias() const override { return m_alias; }
  void setDefaultVolumes() override {}
  void setCrosspointVolume(float, uint32_t, uint32_t) override {}
  void setSlice(double, double, int) override {}
  void hardStop() override {}

 private:
  std::shared_ptr<KyoAlias> m_alias;
  double m_length = 0;
};

// A 600-pixel scroll area holding the view, and a cue on a file of the given length.
struct Fixture {
  explicit Fixture(double seconds, double lengthOverride = 0) {
    AudioCue::setSourceFactory([] { return std::make_unique<FileSource>(); });
    FileSource::lengthOverride = lengthOverride;
    path = sonto::test::temporaryPath("view-" + std::to_string(seconds) + ".wav");
    EXPECT_TRUE(sonto::test::writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 1, int64_t(8000 * seconds)));
    cue = AudioCue::createWithFile(path, nullptr);
    scroll.setFrameShape(QFrame::NoFrame);
    scroll.resize(600, 160);
    view = new AudioWaveformView(&scroll);
    scroll.setWidget(view);
    scroll.setWidgetResizable(false);
    scroll.show();
    QApplication::processEvents();
  }
  ~Fixture() {
    view->setCue(nullptr);
    delete view;
    AudioCue::setSourceFactory(nullptr);
    FileSource::lengthOverride = 0;
    EXPECT_TRUE(pumpUntil([] { return AudioWaveform::runningLoaders() == 0; }));
  }
  void mouse(QEvent::Type type, QPointF at, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
    QMouseEvent event(type, at, view->mapToGlobal(at), type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton,
                      type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton, modifiers);
    QApplication::sendEvent(view, &event);
  }
  void drag(float from, float to, float y = 60) {
    mouse(QEvent::MouseButtonPress, {from, y});
    if (to != from) mouse(QEvent::MouseMove, {to, y});
    mouse(QEvent::MouseButtonRelease, {to, y});
  }
  void wheel(int dx, int dy) {
    QWheelEvent event(QPointF(10, 60), view->mapToGlobal(QPointF(10, 60)), QPoint(), QPoint(dx, dy), Qt::NoButton,
                      Qt::NoModifier, Qt::NoScrollPhase, false);
    QApplication::sendEvent(view, &event);
  }
  std::string path;
  std::shared_ptr<AudioCue> cue;
  QScrollArea scroll;
  AudioWaveformView* view;
};

}  // namespace

// A drag of the played range's handle sets the cue's times as the text fields show
// them; near the anchor the range stays a tenth of a second wide, on the side where
// the mouse is, except where that tenth truncates to no pixel at all.
TEST(WaveformView, HandleDragsSetTheCueTimes) {
  struct Case {
    float pixelsPerSecond;
    bool rightHandle;
    float moveTo;  // pixels
    double startTime, endTime;
  } cases[] = {
      {30, false, 100, 3.333, 10.0},     // in point at 100 px of 30 px/s
      {300, true, 1510, 5.0, 5.1},       // held a tenth (30 px) right of the anchor
      {300, true, 1490, 4.9, 5.0},       // jumps across the anchor, still a tenth
      {300, false, 3100, 10.0, 10.333},  // the left handle past the right one
      {5, true, 25.5f, 5.0, 5.1},        // under 10 px/s no minimum: half a pixel is enough
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.moveTo);
    Fixture f(200);
    f.cue->setEndTime(10.0);
    f.cue->setStartTime(5.0);
    f.view->setCue(f.cue.get());
    f.view->setPixelsPerSecond(c.pixelsPerSecond);
    ASSERT_EQ(f.view->pixelsPerSecond(), c.pixelsPerSecond);
    if (c.pixelsPerSecond == 30) {  // the in point from scratch
      f.cue->setStartTime(0.0);
      f.drag(2, c.moveTo);
    } else {
      const AudioWaveformSelection& played = f.view->playedSelection();
      f.drag(c.rightHandle ? played.rightPixel() : played.leftPixel(), c.moveTo);
    }
    EXPECT_FLOAT_EQ(f.view->playedSelection().leftPixel(), float(c.startTime * c.pixelsPerSecond));
    EXPECT_DOUBLE_EQ(f.cue->startTime(), c.startTime);
    EXPECT_DOUBLE_EQ(f.cue->endTime(), c.endTime);
  }
}

// Clicks on the waveform of a stopped cue: a click loads the cue there, a shift-click
// extends from it, the gutter starts nothing, and the selection becomes the cue's
// range only when it spans a tenth of a second.
TEST(WaveformView, ClicksSelectAndLoad) {
  Fixture f(20);
  f.view->setCue(f.cue.get());
  ASSERT_EQ(f.view->pixelsPerSecond(), 30.0f);
  f.drag(120, 120);
  EXPECT_TRUE(f.view->userSelection().isEmpty());
  EXPECT_DOUBLE_EQ(FileSource::lastGoTo, 4.0);
  f.mouse(QEvent::MouseButtonPress, {240, 60}, Qt::ShiftModifier);
  f.mouse(QEvent::MouseButtonRelease, {240, 60}, Qt::ShiftModifier);
  EXPECT_EQ(f.view->userSelection().leftPixel(), 120.0f);
  EXPECT_EQ(f.view->userSelection().rightPixel(), 240.0f);
  f.drag(400, 450, 5);  // in the gutter
  EXPECT_EQ(f.view->userSelection().rightPixel(), 240.0f);
  f.view->setStartAndEndFromSelection();
  EXPECT_DOUBLE_EQ(f.cue->startTime(), 4.0);
  EXPECT_DOUBLE_EQ(f.cue->endTime(), 8.0);
  f.view->clearSelection();
  EXPECT_TRUE(f.view->userSelection().isEmpty());
  EXPECT_EQ(f.view->userSelection().leftPixel(), -1.0f);
}

// Zoom stays between 0.1 and 5000 px/s and never makes the file narrower than the
// scroll area; the wheel zooms by 1.25 and 0.8 and passes sideways scrolling on.
TEST(WaveformView, ZoomLimits) {
  struct Case {
    double seconds, lengthOverride;
    float set;  // -1, 1: the wheel down or up instead
    float expected;
  } cases[] = {{200, 0, 6000, 3}, {200, 0, 0.05f, 3}, {200, 0, 2, 3},     {200, 0, 5000, 5000},
               {200, 0, -1, 3},   {200, 0, 1, 3.75f}, {2, 7200, -1, 0.1f}};  // two hours: under 0.1 at fit
  for (const Case& c : cases) {
    SCOPED_TRACE(c.set);
    Fixture f(c.seconds, c.lengthOverride);
    f.view->setCue(f.cue.get());
    if (std::fabs(c.set) == 1)
      f.wheel(0, int(120 * c.set));
    else
      f.view->setPixelsPerSecond(c.set);
    EXPECT_FLOAT_EQ(f.view->pixelsPerSecond(), c.expected);
    EXPECT_EQ(f.view->width(), int(std::lround(c.expected * (c.lengthOverride ? c.lengthOverride : c.seconds))));
    if (c.expected != 3.75f) continue;
    const int scrolled = f.scroll.horizontalScrollBar()->value();
    f.wheel(-120, 0);
    EXPECT_NE(f.scroll.horizontalScrollBar()->value(), scrolled);
  }
}

// Drawn right side up: the ruler gutter and the handles at the top, the waveform
// below; a file that vanished shows the flat line along the middle.
TEST(WaveformView, DrawsFlatLineGutterAndHandles) {
  Fixture f(20);
  std::filesystem::remove(f.path);
  f.view->setCue(f.cue.get());
  EXPECT_EQ(f.view->waveform(), nullptr);
  f.cue->setStartTime(10.0);  // the left handle at 300 px
  QImage image(f.view->size(), QImage::Format_ARGB32);
  f.view->render(&image);
  const int middle = 15 + (f.view->height() - 15) / 2;
  const QColor line = image.pixelColor(450, middle);
  EXPECT_NEAR(line.redF(), 0.282, 0.01);
  EXPECT_NEAR(line.blueF(), 0.553, 0.01);
  EXPECT_NE(image.pixelColor(450, middle - 3), line);
  const QColor gutter = image.pixelColor(450, 7);
  EXPECT_NEAR(gutter.redF(), gutter.blueF(), 0.01);  // grey, not the blue waveform ground
  EXPECT_GT(gutter.redF(), 0.05);
  EXPECT_GT(image.pixelColor(300, 3).redF(), 0.25);                        // handle, hanging from the top
  EXPECT_LT(image.pixelColor(300 + 6, f.view->height() - 4).redF(), 0.1);  // nothing of it at the bottom
  // Left of the in point is shaded, right of it not.
  EXPECT_NE(image.pixelColor(200, middle - 20), image.pixelColor(450, middle - 20));
}
