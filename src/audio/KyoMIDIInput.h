#pragma once
// MIDI input. Two streams, as the application makes them at launch:
//  - the port stream hears every MIDI source of the machine: an ALSA sequencer
//    input port subscribed to every readable port (and to ports that appear
//    later), and a JACK MIDI input connected to the server's physical MIDI
//    sources when a JACK server runs;
//  - the virtual stream is a port of our own that other programs connect to.
// Both live in one ALSA sequencer client named "Sonto". Only note on and note off
// pass. Messages that arrive together reach the destination together, as one
// batch, on the main thread (KyoClock::runOnMain), in the order they came.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct KyoMIDIMessage {
  uint8_t status = 0;
  uint8_t data1 = 0;
  uint8_t data2 = 0;

  // 1 to 16.
  unsigned channel() const { return (status & 0x0Fu) + 1; }
  bool isNoteOn() const { return (status & 0xF0) == 0x90; }
  bool isNoteOff() const { return (status & 0xF0) == 0x80; }
  uint8_t note() const { return data1; }
  uint8_t velocity() const { return data2; }
  bool operator==(const KyoMIDIMessage&) const = default;
};

using KyoMIDIMessages = std::vector<KyoMIDIMessage>;
// Called on the main thread with each batch.
using KyoMIDIMessageDestination = std::function<void(const KyoMIDIMessages&)>;

// Why a stream could not be made: a name and a reason, as the launch logs them.
struct KyoMIDIError {
  std::string name;
  std::string reason;
};

class KyoMIDIALSAClient;
class KyoMIDIJackInput;
struct KyoMIDIDelivery;

class KyoMIDIInputStream {
 public:
  virtual ~KyoMIDIInputStream();
  KyoMIDIInputStream(const KyoMIDIInputStream&) = delete;
  KyoMIDIInputStream& operator=(const KyoMIDIInputStream&) = delete;

  // Any thread. Batches already on their way to the main thread go to the
  // destination in place when they arrive; none arrive after destruction.
  void setMessageDestination(KyoMIDIMessageDestination destination);

  // Note on and note off only.
  static bool passesFilter(const KyoMIDIMessage& message) { return message.isNoteOn() || message.isNoteOff(); }

 protected:
  KyoMIDIInputStream();
  std::shared_ptr<KyoMIDIDelivery> m_delivery;
};

class KyoMIDIPortInputStream final : public KyoMIDIInputStream {
 public:
  // Null, with the error, when neither the ALSA sequencer nor JACK could be used.
  // A missing sequencer alone is reported through `alsaError` and the stream goes
  // on with JACK; no JACK server is no error.
  static std::unique_ptr<KyoMIDIPortInputStream> create(KyoMIDIError& error);
  ~KyoMIDIPortInputStream() override;

  bool hasALSA() const { return m_alsa != nullptr; }
  bool hasJack() const { return m_jack != nullptr; }
  const KyoMIDIError& alsaError() const { return m_alsaError; }
  // The JACK port's full name ("client:port"), empty without JACK.
  std::string jackPortName() const;
  // Subscribes again to every readable port now present.
  void refreshSources();

 private:
  KyoMIDIPortInputStream() = default;
  std::shared_ptr<KyoMIDIALSAClient> m_alsa;
  std::unique_ptr<KyoMIDIJackInput> m_jack;
  KyoMIDIError m_alsaError;
};

class KyoMIDIVirtualInputStream final : public KyoMIDIInputStream {
 public:
  static std::unique_ptr<KyoMIDIVirtualInputStream> create(KyoMIDIError& error);
  ~KyoMIDIVirtualInputStream() override;

  // The port's number within the "Sonto" client: asking for the one kept from the
  // last launch keeps other programs' connections by address. False when taken.
  bool setUniqueID(int32_t uniqueID);
  int32_t uniqueID() const;

 private:
  KyoMIDIVirtualInputStream() = default;
  std::shared_ptr<KyoMIDIALSAClient> m_alsa;
  int m_port = -1;
};
