// sonto check SHOW...: what stands between a saved show and its performance, without
// a display: what the reader had to mend in the file (levels beyond any control,
// names that were not text) and the cues that will not play, one line each.
// Exit status 0 when there is nothing to say, 1 when there is, 2 on bad usage.

#include <QUrl>

#include <cstdio>
#include <memory>
#include <string>

#include "app/Commands.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "show/AudioCue.h"
#include "show/AudioCueSourceKyo.h"
#include "show/Cart.h"
#include "show/SontoOfflineRender.h"
#include "show/Workspace.h"
#include "show/WorkspaceFile.h"

namespace {

// One show; answers whether it had nothing to report. Its cues load on an offline
// device, as they would on a real one, so that what will not play shows.
bool checkShow(const std::string& path, const std::shared_ptr<KyoAudioDevice>& device) {
  WorkspaceDocument document;
  SavingError error;
  // The reader logs as it goes; what matters comes out below, once, in this form.
  KyoSetLogSink([](const std::string&) {});
  const bool read = WorkspaceFile::readPackage(QUrl::fromLocalFile(QString::fromStdString(path)), document, &error);
  KyoSetLogSink(nullptr);
  if (!read) {
    std::printf("%s: cannot be opened: %s\n", path.c_str(), error.message.c_str());
    return false;
  }
  bool clean = document.notes.empty();
  for (const std::string& note : document.notes) std::printf("%s: %s\n", path.c_str(), note.c_str());
  Workspace workspace(device);
  KyoSetLogSink([](const std::string&) {});
  WorkspaceFile::applyDocument(workspace, std::move(document));
  KyoSetLogSink(nullptr);
  for (const auto& cart : workspace.carts()) {
    for (const auto& [index, cue] : cart->cues()) {
      if (!cue->isBroken()) continue;
      clean = false;
      std::printf("%s: cart \"%s\", cue \"%s\": will not play: %s\n", path.c_str(), cart->name().c_str(),
                  cue->name().c_str(), cue->brokenExplanation().c_str());
    }
  }
  workspace.close();  // its temporary folder
  return clean;
}

}  // namespace

int sontoCheckCommand(int argc, char** argv) {
  if (argc < 1) {
    std::fprintf(stderr, "usage: sonto check SHOW...\n");
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
  for (int i = 0; i < argc; ++i) clean = checkShow(argv[i], renderer->device()) && clean;
  std::fflush(stdout);
  clock->settle();
  renderer.reset();
  KyoInstallClock(nullptr);
  return clean ? 0 : 1;
}
