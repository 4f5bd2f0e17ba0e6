// sonto check [--json] SHOW...: what stands between a saved show and its performance,
// without a display: what the reader had to mend in the file (levels beyond any
// control, names that were not text) and the window's safety check: cues that will
// not play, cues outside their grid, triggers that clash. One line each, or one JSON
// document with --json. Exit status 0 when there is nothing to say, 1 when there is,
// 2 on bad usage.

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "app/Commands.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "show/AudioCue.h"
#include "show/AudioCueSourceKyo.h"
#include "show/Cart.h"
#include "show/SafetyConcern.h"
#include "show/SontoOfflineRender.h"
#include "show/Workspace.h"
#include "show/WorkspaceFile.h"

namespace {

QString qString(const std::string& text) { return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())); }

// What one show gave; `error` set means that it could not be opened at all.
struct ShowReport {
  std::string path;
  std::string error;
  std::vector<std::string> notes;
  QJsonArray concerns;  // objects: cart, slot, cue, type, text
  bool clean() const { return error.empty() && notes.empty() && concerns.isEmpty(); }
};

QJsonObject concernObject(const SafetyConcern& concern, const Cart& cart, const Cue& cue) {
  QJsonObject object;
  object.insert("cart", qString(cart.name()));
  // Counted from 1 as on the pads; a cue outside the grid has no slot there.
  const unsigned long index = cart.isInternalIndexOutsideOfGrid(cart.internalIndexOfCue(&cue))
                                  ? Cart::kNotFound
                                  : cart.indexOfCue(&cue);
  object.insert("slot", index == Cart::kNotFound ? QJsonValue() : QJsonValue(static_cast<qint64>(index + 1)));
  object.insert("cue", qString(cue.displayName()));
  object.insert("type", concern.concernType());
  object.insert("text", qString(concern.description()));
  return object;
}

// Its cues load on an offline device, as they would on a real one, so that what will
// not play shows.
ShowReport checkShow(const std::string& path, const std::shared_ptr<KyoAudioDevice>& device) {
  ShowReport report;
  report.path = path;
  WorkspaceDocument document;
  SavingError error;
  // The reader logs as it goes; what matters comes out below, once, in this form.
  KyoSetLogSink([](const std::string&) {});
  const bool read = WorkspaceFile::readPackage(QUrl::fromLocalFile(qString(path)), document, &error);
  KyoSetLogSink(nullptr);
  if (!read) {
    report.error = error.message.empty() ? std::string("unknown error") : error.message;
    return report;
  }
  report.notes = document.notes;
  Workspace workspace(device);
  KyoSetLogSink([](const std::string&) {});
  WorkspaceFile::applyDocument(workspace, std::move(document));
  for (const SafetyConcern& concern : SafetyConcern::brokenOrFlaggedCues(workspace.carts())) {
    const auto cue = concern.cue();
    if (cue && cue->cart()) report.concerns.append(concernObject(concern, *cue->cart(), *cue));
  }
  KyoSetLogSink(nullptr);
  workspace.close();  // its temporary folder
  return report;
}

void printText(const ShowReport& report) {
  const char* path = report.path.c_str();
  if (!report.error.empty()) std::printf("%s: cannot be opened: %s\n", path, report.error.c_str());
  for (const std::string& note : report.notes) std::printf("%s: %s\n", path, note.c_str());
  for (const QJsonValue& value : report.concerns) {
    const QJsonObject concern = value.toObject();
    const QByteArray cart = concern.value("cart").toString().toUtf8(), cue = concern.value("cue").toString().toUtf8();
    const QByteArray text = concern.value("text").toString().toUtf8();
    const QJsonValue slot = concern.value("slot");
    const std::string where = slot.isNull() ? std::string("outside the grid") : "slot " + std::to_string(slot.toInt());
    std::printf("%s: cart \"%s\", %s, cue \"%s\": %s\n", path, cart.constData(), where.c_str(), cue.constData(),
                text.constData());
  }
}

QJsonObject jsonObject(const ShowReport& report) {
  QJsonObject object;
  object.insert("path", qString(report.path));
  object.insert("opened", report.error.empty());
  if (!report.error.empty()) object.insert("error", qString(report.error));
  QJsonArray notes;
  for (const std::string& note : report.notes) notes.append(qString(note));
  object.insert("notes", notes);
  object.insert("concerns", report.concerns);
  return object;
}

}  // namespace

int sontoCheckCommand(int argc, char** argv) {
  bool json = false;
  std::vector<std::string> shows;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) {
      json = true;
    } else if (std::strcmp(argv[i], "--") == 0) {
      for (++i; i < argc; ++i) shows.emplace_back(argv[i]);
    } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
      std::fprintf(stderr, "sonto check: unknown option %s\nusage: sonto check [--json] SHOW...\n", argv[i]);
      return 2;
    } else {
      shows.emplace_back(argv[i]);
    }
  }
  if (shows.empty()) {
    std::fprintf(stderr, "usage: sonto check [--json] SHOW...\n");
    return 2;
  }
  // Cues read their files through the engine's reader, on a clock that needs no loop.
  auto clock = std::make_shared<KyoVirtualClock>();
  KyoInstallClock(clock);
  AudioCueSourceKyo::install();
  std::string error;
  auto renderer = SontoOfflineRender::create(*clock, 48000, 512, SontoOfflineRender::kDefaultChannels, &error);
  if (!renderer) {
    std::fprintf(stderr, "sonto check: %s\n", error.c_str());
    KyoInstallClock(nullptr);
    return 1;
  }
  bool clean = true;
  QJsonArray reports;
  for (const std::string& show : shows) {
    const ShowReport report = checkShow(show, renderer->device());
    clean = clean && report.clean();
    if (json) {
      reports.append(jsonObject(report));
    } else {
      printText(report);
    }
  }
  if (json) std::fputs(QJsonDocument(QJsonObject{{"shows", reports}}).toJson().constData(), stdout);
  std::fflush(stdout);
  clock->settle();
  renderer.reset();
  KyoInstallClock(nullptr);
  return clean ? 0 : 1;
}
