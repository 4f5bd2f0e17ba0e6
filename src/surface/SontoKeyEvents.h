#pragma once
// Qt's key events in the toolkit-free form the show understands: the physical key
// from the scan code through the key table, the character without modifiers, and
// the modifier bits. Control stands where a Mac keyboard has Command in menus, so
// "Command down" below means either bit.

#include <QString>

#include "foundation/KyoHotKey.h"

class QKeyEvent;

KyoKeyEvent SontoKeyEventFromQt(const QKeyEvent& event);
// The same from the parts, for events made by hand.
KyoKeyEvent SontoKeyEvent(int qtKey, Qt::KeyboardModifiers modifiers, quint32 nativeScanCode, const QString& text);

bool SontoKeyEventCommandDown(const KyoKeyEvent& event);
// The characters without modifiers, upper-cased, as UTF-8: what a cue's hot key is
// compared with.
std::string SontoKeyEventShortcut(const KyoKeyEvent& event);
