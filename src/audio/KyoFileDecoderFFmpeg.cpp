// The FFmpeg path: what libsndfile does not open, the sound of video files included.

#include "audio/KyoFileDecoder.h"
#include "foundation/KyoLog.h"

std::unique_ptr<KyoFileDecoder> KyoFileDecoderOpenFFmpeg(const std::string& path, const std::string& displayName) {
  KyoLog("Error: Could not create KyoAudioFile with file: %s", displayName.c_str());
  KyoLog("       Code: %i", -1);
  KyoLog("       Description: %s", "this build reads with libsndfile only");
  return nullptr;
}
