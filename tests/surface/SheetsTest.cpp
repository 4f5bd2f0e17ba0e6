// The settings sheet, its hot key fields and the log window, driven by real key
// events with the scan codes an X server gives.
#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>
#include <thread>

#include "SurfaceTestSupport.h"
#include "foundation/KyoKeyCodes.h"
#include "foundation/KyoNotificationCenter.h"
#include "show/SontoLogger.h"
#include "support/Waiting.h"
#include "foundation/KyoEnvironment.h"
#include "surface/LogController.h"
#include "surface/PrefsController.h"
#include "surface/SettingsController.h"
#include "surface/SontoKeyEvents.h"
#include "surface/VarnHotKeyTextView.h"

namespace {

// A shown sheet over its own settings, counting panics and announced changes.
struct Sheet {
  WorkspaceSettings settings;
  int cancels = 0;
  SettingsController controller{settings, nullptr, [this] { ++cancels; }};
  QSignalSpy changes{&controller, &SettingsController::stateChanged};
  Sheet() {
    controller.show();
    controller.activateWindow();
    QApplication::processEvents();
  }
};

// evdev codes beyond the shared ones.
constexpr quint32 kEvdevA = 30, kEvdevF5 = 63, kEvdevBackspace = 14, kEvdevLeft = 105, kEvdevTab = 15,
                  kEvdevReturn = 28, kEvdevKeypadEnter = 96;

}  // namespace

TEST(SettingsSheet, KeyPressedIntoAHotKeyFieldIsTheKeyStored) {
  struct Case {
    const char* what;
    int qtKey;
    quint32 evdev;
    QString text;
    Qt::KeyboardModifiers modifiers;
    bool taken;
    uint16_t keyCode;
    const char* shown;
  };
  const Case cases[] = {
      {"shift+a", Qt::Key_A, kEvdevA, "A", Qt::ShiftModifier, true, KyoKeyCode::kA, "\u21E7A"},
      {"ctrl+alt+q", Qt::Key_Q, kEvdevQ, "\x11", Qt::ControlModifier | Qt::AltModifier, true, KyoKeyCode::kQ,
       "\u2303\u2325Q"},
      {"F5", Qt::Key_F5, kEvdevF5, "", Qt::NoModifier, true, KyoKeyCode::kF5, "F5"},
      {"backspace", Qt::Key_Backspace, kEvdevBackspace, "\b", Qt::NoModifier, true, KyoKeyCode::kDelete, "\u232B"},
      // Refused: the field keeps the default left bracket.
      {"meta+a", Qt::Key_A, kEvdevA, "a", Qt::MetaModifier, false, 0, nullptr},
      {"left arrow", Qt::Key_Left, kEvdevLeft, "", Qt::NoModifier, false, 0, nullptr},
      {"shift alone", Qt::Key_Shift, 42, "", Qt::ShiftModifier, false, 0, nullptr},
      {"no scan code", Qt::Key_W, 0xFFFFFFF0u, "w", Qt::NoModifier, false, 0, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Sheet sheet;
    VarnHotKeyTextView* view = sheet.controller.pauseAllView();
    QSignalSpy will(view, &VarnHotKeyTextView::hotKeyWillChange);
    QSignalSpy did(view, &VarnHotKeyTextView::hotKeyDidChange);
    sendKey(view, QEvent::KeyPress, c.qtKey, c.evdev, c.text, c.modifiers);

    // The field tells its owner about every attempt, refused ones included.
    EXPECT_EQ(will.count() + did.count(), 2);
    const KyoHotKey& stored = sheet.settings.pauseAllKey();
    EXPECT_TRUE(stored == view->key());
    EXPECT_EQ(sheet.changes.count(), c.taken ? 1 : 0);
    if (!c.taken) {
      EXPECT_EQ(stored.keyCode(), KyoKeyCode::kLeftBracket);
      EXPECT_EQ(view->displayedText(), "[");
      continue;
    }
    EXPECT_EQ(stored.keyCode(), c.keyCode);
    EXPECT_EQ(view->displayedText(), QString::fromUtf8(c.shown));
    // The same physical key pressed later in the window fires it; other modifiers do not.
    EXPECT_TRUE(stored.matchesKeyEvent(SontoKeyEvent(c.qtKey, c.modifiers, c.evdev + 8, c.text)));
    EXPECT_FALSE(stored.matchesKeyEvent(SontoKeyEvent(c.qtKey, c.modifiers ^ Qt::ShiftModifier, c.evdev + 8, c.text)));
    EXPECT_EQ(sheet.settings.resumeAllKey().displayString() + sheet.settings.duckMasterKey().displayString(), "],");
  }
}

TEST(SettingsSheet, EscapeReturnTabAndReadOnlyFieldsChangeNoKey) {
  Sheet sheet;
  VarnHotKeyTextView* view = sheet.controller.resumeAllView();
  QSignalSpy did(view, &VarnHotKeyTextView::hotKeyDidChange);
  const QJsonObject before = sheet.settings.state();

  // Escape is the panic, from a hot key field and from anywhere else in the sheet,
  // and the sheet stays open.
  sendKey(view, QEvent::KeyPress, Qt::Key_Escape, kEvdevEscape, "\x1b");
  sendKey(sheet.controller.panicDurationField(), QEvent::KeyPress, Qt::Key_Escape, kEvdevEscape, "\x1b");
  EXPECT_EQ(sheet.cancels, 2);
  EXPECT_TRUE(sheet.controller.isVisible());

  // Return and keypad Enter end the entry; Tab moves on to the next control.
  for (auto [qtKey, evdev] : {std::pair{int(Qt::Key_Return), kEvdevReturn}, {int(Qt::Key_Enter), kEvdevKeypadEnter}}) {
    view->setFocus();
    ASSERT_TRUE(view->hasFocus());
    sendKey(view, QEvent::KeyPress, qtKey, evdev, "\r");
    EXPECT_FALSE(view->hasFocus());
  }
  view->setFocus();
  sendKey(view, QEvent::KeyPress, Qt::Key_Tab, kEvdevTab, "\t");
  EXPECT_FALSE(view->hasFocus());
  EXPECT_TRUE(sheet.controller.isVisible());

  // A read-only field drops even a key it would take.
  view->setEditable(false);
  sendKey(view, QEvent::KeyPress, Qt::Key_A, kEvdevA, "a");
  EXPECT_EQ(did.count(), 0);
  EXPECT_EQ(sheet.settings.state(), before);
  EXPECT_EQ(sheet.changes.count(), 0);
  EXPECT_EQ(sheet.cancels, 2);
}

TEST(SettingsSheet, PanicFieldTakesOnlyNumbersOfZeroOrMore) {
  struct Case {
    QString typed;
    float kept;
    QString shown;
  };
  const Case cases[] = {
      {"2.5", 2.5f, "2.5"},     {"0", 0.0f, "0.0"},   {"-0", 0.0f, "0.0"},     {" 0.1 ", 0.1f, "0.1"},
      {"120", 120.0f, "120.0"}, {"-1", 1.0f, "1.0"},  {"-0.001", 1.0f, "1.0"}, {"abc", 1.0f, "1.0"},
      {"", 1.0f, "1.0"},        {"nan", 1.0f, "1.0"}, {"inf", 1.0f, "1.0"},    {"1e40", 1.0f, "1.0"},
      {"1,5x", 1.0f, "1.0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.typed.toStdString());
    Sheet sheet;
    QLineEdit* field = sheet.controller.panicDurationField();
    field->setFocus();
    field->setText(c.typed);
    // Return commits the field and must press no button of the sheet (Reset, Close).
    QTest::keyClick(field, Qt::Key_Return);
    EXPECT_EQ(sheet.settings.panicDuration(), c.kept);
    EXPECT_EQ(field->text(), c.shown);
    EXPECT_EQ(sheet.changes.count(), c.kept != 1.0f ? 1 : 0);
    EXPECT_TRUE(sheet.controller.isVisible());
  }
}

TEST(SettingsSheet, ChannelPopupClearButtonsCheckBoxAndReset) {
  Sheet sheet;
  QComboBox* popup = sheet.controller.midiChannelField();
  ASSERT_EQ(popup->count(), 17);
  EXPECT_EQ(popup->itemText(0), "Any channel");
  popup->setCurrentIndex(16);
  EXPECT_EQ(sheet.settings.midiChannel(), 16);
  popup->setCurrentIndex(16);
  EXPECT_EQ(sheet.changes.count(), 1);
  // A file's channel shows once the owner refreshes the sheet, announced by no one.
  sheet.settings.setState(QJsonObject{{"MIDI Controls", QJsonObject{{"midiChannel", 3}}}});
  sheet.controller.refreshView();
  EXPECT_EQ(popup->currentText(), "3");
  EXPECT_EQ(sheet.changes.count(), 1);

  // Each clear button empties its own key; a second press is no change. Other tags
  // have no button and change nothing.
  const std::pair<int, KyoHotKey*> clears[] = {
      {1, &sheet.settings.pauseAllKey()}, {2, &sheet.settings.resumeAllKey()}, {5, &sheet.settings.duckMasterKey()}};
  for (auto [tag, key] : clears) {
    EXPECT_FALSE(key->isEmpty());
    QTest::mouseClick(sheet.controller.clearButton(tag), Qt::LeftButton);
    QTest::mouseClick(sheet.controller.clearButton(tag), Qt::LeftButton);
    EXPECT_TRUE(key->isEmpty()) << tag;
  }
  EXPECT_EQ(sheet.changes.count(), 4);
  EXPECT_EQ(sheet.controller.pauseAllView()->displayedText(), "");
  const QJsonObject cleared = sheet.settings.state();
  for (int tag : {0, 3, 4, 6, -1}) {
    EXPECT_EQ(sheet.controller.clearButton(tag), nullptr);
    sheet.controller.clearHotkey(tag);
  }
  EXPECT_EQ(sheet.settings.state(), cleared);

  QTest::mouseClick(sheet.controller.performSafetyCheckView(), Qt::LeftButton);
  EXPECT_TRUE(sheet.settings.shouldPerformSafetyChecks());
  // Reset: defaults in the settings and on screen, announced once; a second reset is no change.
  QTest::mouseClick(sheet.controller.resetButton(), Qt::LeftButton);
  QTest::mouseClick(sheet.controller.resetButton(), Qt::LeftButton);
  EXPECT_EQ(sheet.changes.count(), 6);
  EXPECT_EQ(sheet.settings.state(), WorkspaceSettings().state());
  EXPECT_FALSE(sheet.controller.performSafetyCheckView()->isChecked());
  EXPECT_EQ(sheet.controller.duckMasterView()->displayedText() + popup->currentText(), ",Any channel");

  sheet.controller.setRepresentedFilename("/shows/Opening Night.sonto");
  EXPECT_TRUE(sheet.controller.windowTitle().contains("Opening Night.sonto"));
  QTest::mouseClick(sheet.controller.closeButton(), Qt::LeftButton);
  EXPECT_FALSE(sheet.controller.isVisible());
  EXPECT_EQ(sheet.cancels, 0);
}

TEST(LogWindow, FollowsItsLoggerClearsMutesAndSwitches) {
  auto logger = std::make_shared<SontoLogger>();
  auto other = std::make_shared<SontoLogger>();
  logger->appendLog("Overture (overture.wav)");
  const size_t observersBefore = KyoNotificationCenter::defaultCenter().observerCount();
  {
    LogController window(logger);
    window.show();
    QPlainTextEdit* text = window.textView();
    EXPECT_EQ(text->toPlainText().toStdString(), logger->stringWithContentsOfLog());

    logger->appendLog("Thunder (thunder.wav)");
    EXPECT_TRUE(text->toPlainText().contains("Thunder (thunder.wav)"));
    // Another show's log is not this window's.
    other->appendLog("Elsewhere (x.wav)");
    EXPECT_FALSE(text->toPlainText().contains("Elsewhere"));

    // Muted, a cue start adds nothing, to the log or the window.
    QTest::mouseClick(window.muteButton(), Qt::LeftButton);
    EXPECT_EQ(window.muteButton()->text(), "Resume logging");
    logger->appendLog("Silent (s.wav)");
    EXPECT_FALSE(text->toPlainText().contains("Silent"));
    QTest::mouseClick(window.muteButton(), Qt::LeftButton);
    EXPECT_EQ(window.muteButton()->text(), "Pause logging");

    // An entry from a worker thread reaches the window through the main thread.
    std::thread worker([&] { logger->appendLog("Late (late.wav)"); });
    worker.join();
    EXPECT_TRUE(sonto::test::eventually([&] {
      QApplication::processEvents();
      return text->toPlainText().contains("Late (late.wav)");
    }));

    QTest::mouseClick(window.clearButton(), Qt::LeftButton);
    EXPECT_TRUE(logger->log().empty());
    EXPECT_EQ(text->toPlainText(), "");

    window.setLogger(other);
    EXPECT_TRUE(text->toPlainText().contains("Elsewhere"));
    logger->appendLog("Old show (o.wav)");
    EXPECT_FALSE(text->toPlainText().contains("Old show"));

    window.setLogger(nullptr);
    EXPECT_EQ(text->toPlainText(), "");
    EXPECT_FALSE(window.muteButton()->isEnabled());
    EXPECT_FALSE(window.clearButton()->isEnabled());
  }
  // The closed window observes nothing any more; a late entry finds no one.
  EXPECT_EQ(KyoNotificationCenter::defaultCenter().observerCount(), observersBefore);
  logger->appendLog("After (a.wav)");
}

// The log level chosen is applied at once, kept in the user defaults and logged,
// and the next window opens on it; a stored level outside the list shows the first.
TEST(Preferences, TheChosenLogLevelIsAppliedStoredAndShownAgain) {
  const long before = KyoEnvironment::logLevel();
  {
    PrefsController prefs;
    sonto::test::LogCapture log;
    QComboBox* popup = prefs.logLevelPopup();
    ASSERT_EQ(popup->count(), PrefsController::kHighestLogLevel + 1);
    popup->setCurrentIndex(popup->findData(2));
    emit popup->activated(popup->currentIndex());
    EXPECT_EQ(KyoEnvironment::logLevel(), 2);
    EXPECT_TRUE(log.contains("Setting log level to 2"));
  }
  EXPECT_EQ(QSettings().value(PrefsController::kLogLevelKey).toInt(), 2);
  EXPECT_EQ(PrefsController().logLevelPopup()->currentData().toInt(), 2);
  QSettings().setValue(PrefsController::kLogLevelKey, 99);
  EXPECT_EQ(PrefsController().logLevelPopup()->currentIndex(), 0);
  KyoEnvironment::setLogLevel(before);
}
