#pragma once
// One way to read any audio file: libsndfile first, FFmpeg for what it cannot open
// (including the sound of a video), converted on reading to the caller's format,
// sample rate included (libsoxr), with sample-exact seeks on both paths.
//
// Used briefly to ask a file's format and length, and as the decoder inside a
// read-ahead stream, where it is created on one thread and read on another; one
// thread at a time. Opening and reading touch the disk: never on the render thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "audio/KyoAudioReading.h"
#include "audio/KyoAudioStreamDescription.h"
#include "foundation/KyoAlias.h"

class KyoAudioFile : public KyoAudioReading {
 public:
  KyoAudioFile();  // same as with a null alias
  explicit KyoAudioFile(std::shared_ptr<KyoAlias> alias);
  ~KyoAudioFile() override;
  KyoAudioFile(const KyoAudioFile&) = delete;
  KyoAudioFile& operator=(const KyoAudioFile&) = delete;

  static double fileLengthInSecondsForAlias(const std::shared_ptr<KyoAlias>& alias);
  static std::optional<KyoAudioStreamDescription> fileFormatForAlias(const std::shared_ptr<KyoAlias>& alias);

  void setAlias(std::shared_ptr<KyoAlias> alias);
  std::shared_ptr<KyoAlias> alias() const { return m_alias; }

  bool validFile() const;
  // The fallback decoder (FFmpeg) is in use; named after the role it plays.
  bool usingQuickTime() const;
  // Which decoder opened the file: "libsndfile", "ffmpeg", or "" when invalid.
  std::string decoderName() const;

  std::optional<KyoAudioStreamDescription> fileFormat();
  uint32_t fileChannels();
  int64_t _fileLengthInFrames();
  double fileLengthInSeconds();

  void setReadFormat(const std::optional<KyoAudioStreamDescription>& format);
  void goToFrame(int64_t frame);  // in the file's own sample rate

  bool attachToCurrentThread() { return true; }
  void detachFromCurrentThread() {}

  uint32_t readFrames(uint32_t frames, AudioBufferList* list) { return readFrames(frames, list, 0); }
  uint32_t readFrames(uint32_t frames, AudioBufferList* list, uint32_t offset) override;
  void registerReadFramesInfo(KyoReadFramesInfo* info) override { KyoRegisterReadFramesInfo(this, info); }

  bool isFinished() const { return m_atEndOfFile; }
  std::string description() const { return m_alias ? m_alias->description() : std::string(); }

  struct Decoder;  // one of the two decoding paths

 private:
  void _openFile();
  void _closeFile();

  std::shared_ptr<KyoAlias> m_alias;
  std::unique_ptr<Decoder> m_decoder;
  std::optional<KyoAudioStreamDescription> m_fileFormat;
  double m_fileLengthInSeconds = 0;
  bool m_atEndOfFile = false;
};
