// sonto devices: the output devices the device layer sees now, one line each.

#include <cstdio>
#include <cstring>
#include <string>

#include "app/Commands.h"
#include "audio/KyoHAL.h"

namespace {

std::string rateText(double rate) {
  char text[32];
  if (rate == static_cast<double>(static_cast<long long>(rate)))
    std::snprintf(text, sizeof text, "%lld Hz", static_cast<long long>(rate));
  else
    std::snprintf(text, sizeof text, "%.3f Hz", rate);
  return text;
}

}  // namespace

int sontoDevicesCommand(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
      std::printf("usage: sonto devices\n  one line per output device: UID, name, output channels, sample rate,\n"
                  "  buffer size; the default output is marked \"(default)\"\n");
      return 0;
    }
    std::fprintf(stderr, "sonto devices: unexpected argument '%s'\n", argv[i]);
    return 2;
  }
  KyoHAL& hal = KyoHAL::shared();
  auto devices = hal.allDevices();
  KyoAudioObjectID defaultOutput = hal.defaultOutputDevice();
  int shown = 0;
  for (KyoAudioObjectID id : devices) {
    KyoHALDeviceProperties p;
    // A device may vanish between the list and its properties.
    if (hal.properties(id, p) != kKyoHALNoError || p.outputChannels == 0) continue;
    std::printf("%-32s %-32s %3u out  %-10s %5u frames%s\n", p.uid.c_str(),
                p.name.c_str(), p.outputChannels, rateText(p.nominalSampleRate).c_str(), p.bufferSizeInFrames,
                id == defaultOutput ? "  (default)" : "");
    ++shown;
  }
  if (shown == 0) {
    std::fprintf(stderr, "sonto devices: no output device found\n");
    return 1;
  }
  return 0;
}
