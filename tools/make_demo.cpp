// make_demo OUTPUT_FOLDER
//
// Writes the demo show that `make run` opens: its sounds under OUTPUT_FOLDER/media
// and the show itself as OUTPUT_FOLDER/Demo.sonto, two carts of named, coloured
// cues with hot keys and MIDI notes, a looping cue, a hold cue and a solo cue. The
// show names no output device, so it plays on the default one of whichever machine
// opens it. Speech needs espeak-ng; without it the announcements cart keeps only
// its chime, and a note says so.

#include <QUrl>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <sndfile.h>

#include "DemoMedia.h"
#include "foundation/KyoHotKey.h"
#include "foundation/KyoKeyCodes.h"
#include "audio/KyoAudioDevice.h"
#include "audio/KyoHAL.h"
#include "show/AudioCue.h"
#include "show/AudioCueSourceKyo.h"
#include "show/Cart.h"
#include "show/Workspace.h"
#include "show/WorkspaceFile.h"
#include "show/WorkspaceSettings.h"

namespace {

namespace fs = std::filesystem;

constexpr int kWav16 = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
constexpr int kFlac16 = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;

struct DemoCue {
  const char* name;
  const char* fileName;
  SontoColor (*color)();
  bool loops = false;
  bool hold = false;
  bool solo = false;
  float volume = 1.0f;
};

struct Synthesised {
  const char* fileName;
  demo::StereoSound (*make)();
  int format;
  bool isLoop;
};

const Synthesised kSounds[] = {
    {"fanfare.wav", demo::fanfare, kWav16, false},
    {"bell.flac", demo::bell, kFlac16, false},
    {"countdown.wav", demo::countdown, kWav16, false},
    {"applause.wav", demo::applause, kWav16, false},
    {"pad-loop.wav", [] { return demo::padLoop(8.0); }, kWav16, true},
    {"wind-loop.flac", [] { return demo::windLoop(6.0); }, kFlac16, true},
    {"thunder.wav", demo::thunder, kWav16, false},
    {"drone.wav", [] { return demo::drone(30.0); }, kWav16, false},
    {"line-check.wav", [] { return demo::lineCheck(10.0); }, kWav16, false},
    {"pink-noise.wav", [] { return demo::pinkNoise(10.0); }, kWav16, false},
    {"chime.wav", demo::chime, kWav16, false},
};

const std::vector<DemoCue> kMusicAndEffects = {
    {"Fanfare", "fanfare.wav", SontoColor::redColor},
    {"Bell", "bell.flac", SontoColor::yellowColor},
    {"Countdown", "countdown.wav", SontoColor::orangeColor},
    {"Applause", "applause.wav", SontoColor::greenColor},
    {"Pad Loop", "pad-loop.wav", SontoColor::blueColor, true},
    {"Wind Loop", "wind-loop.flac", SontoColor::lightblueColor, true},
    {"Thunder", "thunder.wav", SontoColor::purpleColor},
    {"Drone (hold)", "drone.wav", SontoColor::defaultColor, false, true},
    {"Line Check 1 kHz", "line-check.wav", SontoColor::defaultColor},
    {"Pink Noise (solo)", "pink-noise.wav", SontoColor::defaultColor, false, false, true, 0.5f},
};

struct Announcement {
  const char* name;
  const char* fileName;
  const char* text;
  SontoColor (*color)();
};

const Announcement kAnnouncements[] = {
    {"Doors open", "doors-open.wav", "Ladies and gentlemen, the doors are now open.", SontoColor::greenColor},
    {"Welcome", "welcome.wav", "Good evening, and welcome to the show.", SontoColor::blueColor},
    {"Phones off", "phones-off.wav", "Please switch off your mobile phones.", SontoColor::orangeColor},
    {"Five minutes", "five-minutes.wav", "The performance will begin in five minutes.", SontoColor::yellowColor},
    {"Intermission", "intermission.wav", "There will now be an intermission of twenty minutes.",
     SontoColor::purpleColor},
    {"Good night", "good-night.wav", "Thank you, and good night.", SontoColor::redColor},
};

bool makeSounds(const fs::path& media) {
  for (const Synthesised& s : kSounds) {
    const demo::StereoSound sound = s.make();
    // A loop whose seam steps further than anything inside it would click on every pass.
    if (s.isLoop && demo::largestStep(sound, true) > 1.5f * demo::largestStep(sound, false)) {
      std::fprintf(stderr, "make_demo: %s would click at its loop point\n", s.fileName);
      return false;
    }
    if (!demo::writeSound((media / s.fileName).string(), sound, s.format)) return false;
  }
  return true;
}

// Fills the cart's slots in order, each cue with its slot's default key and the
// slot number as its MIDI note, as a file dropped on that slot would get them.
bool placeCue(Cart& cart, unsigned long index, const DemoCue& demo, const fs::path& media,
              const std::shared_ptr<KyoAudioDevice>& device) {
  const fs::path file = media / demo.fileName;
  auto cue = AudioCue::createWithFile(file.string(), device);
  if (!cue || cue->isBroken()) {
    std::fprintf(stderr, "make_demo: %s cannot be played: %s\n", file.c_str(),
                 cue ? cue->brokenExplanation().c_str() : "no cue");
    return false;
  }
  cue->setName(demo.name);
  cue->setColor(demo.color());
  cue->setHotkey(cart.defaultHotkeyForIndex(index));
  cue->setMidiNote(static_cast<int>(cart.internalIndexForIndex(index)));
  cue->setLoopsValue(demo.loops);
  cue->setHold(demo.hold);
  cue->setSolo(demo.solo);
  cue->setVolumeValue(demo.volume);
  cue->updateSlices();
  cart.setCue(cue, index);
  return true;
}

// F5 pauses every cue, F6 resumes them, F7 ducks the master level: function keys,
// so that no cue's letter or digit is taken.
bool setWorkspaceKeys(WorkspaceSettings& settings) {
  struct Key {
    KyoHotKey& hotKey;
    uint16_t keyCode;
    int functionNumber;
  };
  for (const Key& key : {Key{settings.pauseAllKey(), KyoKeyCode::kF5, 5}, Key{settings.resumeAllKey(), KyoKeyCode::kF6, 6},
                         Key{settings.duckMasterKey(), KyoKeyCode::kF7, 7}}) {
    KyoKeyEvent event;
    event.keyCode = key.keyCode;
    event.charactersIgnoringModifiers = {static_cast<char16_t>(KyoKeyCharacter::kF1 + key.functionNumber - 1)};
    event.modifierFlags = KyoKeyEvent::kFunction;
    if (!key.hotKey.setFromKeyEvent(event)) return false;
  }
  return true;
}

std::shared_ptr<Cart> makeCart(const std::string& name, CartSize size) {
  auto cart = std::make_shared<Cart>();
  cart->setName(name);
  cart->setSize(size);
  return cart;
}

// A device of no hardware for the cues' sources while the show is built: reading
// the files' lengths needs one, and nothing plays.
struct BuildDevice {
  BuildDevice() {
    id = KyoHAL::shared().createOfflineDevice(2, demo::kSampleRate, 512, 0);
    device = KyoAudioDevice::deviceWithID(id);
  }
  ~BuildDevice() {
    device.reset();
    KyoHAL::shared().destroyOfflineDevice(id);
  }
  KyoAudioObjectID id = 0;
  std::shared_ptr<KyoAudioDevice> device;
};

int makeDemo(const fs::path& output) {
  const fs::path media = output / "media";
  std::error_code error;
  fs::create_directories(media, error);
  if (error) {
    std::fprintf(stderr, "make_demo: cannot make %s: %s\n", media.c_str(), error.message().c_str());
    return 1;
  }
  if (!makeSounds(media)) return 1;

  std::vector<DemoCue> announcements = {{"Chime", "chime.wav", SontoColor::lightblueColor}};
  for (const Announcement& a : kAnnouncements) {
    std::string why;
    if (!demo::speak(a.text, (media / a.fileName).string(), &why)) {
      std::fprintf(stderr, "make_demo: note: the demo show has no spoken cues (%s)\n", why.c_str());
      break;
    }
    announcements.push_back({a.name, a.fileName, a.color});
  }

  BuildDevice build;
  if (!build.device) {
    std::fprintf(stderr, "make_demo: no device to read the sounds with\n");
    return 1;
  }
  AudioCueSourceKyo::install();

  auto workspace = std::make_unique<Workspace>(build.device);
  if (!setWorkspaceKeys(workspace->settings())) {
    std::fprintf(stderr, "make_demo: the workspace keys were refused\n");
    return 1;
  }
  auto effects = makeCart("Music and Effects", {4.0f, 3.0f});
  auto spoken = makeCart("Announcements", {4.0f, 2.0f});
  for (size_t i = 0; i < kMusicAndEffects.size(); ++i)
    if (!placeCue(*effects, i, kMusicAndEffects[i], media, build.device)) return 1;
  for (size_t i = 0; i < announcements.size(); ++i)
    if (!placeCue(*spoken, i, announcements[i], media, build.device)) return 1;
  workspace->setCarts({effects, spoken});

  SavingError saveError;
  const fs::path package = output / "Demo.sonto";
  const bool saved = workspace->writeToURL(QUrl::fromLocalFile(QString::fromStdString(package.string())), &saveError);
  // The cues' sources go before the device they were made on.
  effects.reset();
  spoken.reset();
  workspace->close();
  workspace.reset();
  AudioCue::setSourceFactory(nullptr);
  if (!saved) {
    std::fprintf(stderr, "make_demo: cannot save %s: %s\n", package.c_str(), saveError.message.c_str());
    return 1;
  }
  std::printf("make_demo: wrote %s\n", package.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_demo OUTPUT_FOLDER\n");
    return 2;
  }
  return makeDemo(argv[1]);
}
