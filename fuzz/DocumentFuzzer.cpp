// libFuzzer entry for the workspace document reader: any bytes must give a
// document or a refusal, never a crash, a hang or a read out of bounds.
#include <cstddef>
#include <cstdint>

#include "foundation/KyoLog.h"
#include "show/WorkspaceFile.h"
#include "show/WorkspaceSettings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool kQuiet = [] {
    KyoSetLogSink([](const std::string&) {});
    return true;
  }();
  (void)kQuiet;
  const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
  std::string error;
  if (auto document = WorkspaceFile::documentFromData(bytes, &error)) {
    // What a read does next with the values: settings state and a write back.
    WorkspaceSettings settings;
    settings.setState(document->settings);
    (void)WorkspaceFile::documentData(*document);
  }
  return 0;
}
