#pragma once
// A small graph of units that nothing runs by itself: its last unit is pulled by hand
// from a device's or send's bus. Every operation answers true or false, logs a failure
// with its own name and can hand back an error ("AUGraphErrorDomain", the status as
// code); the state changes are idempotent where a plain call wouldn't be.
//
// Threads: no thread of its own. The owner rebuilds on its thread while its render
// mutex keeps the render thread out. renderLock() only keeps two non-render writers of
// unit properties apart; the render path never takes it.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "audio/KyoAudioRendering.h"
#include "audio/KyoAudioUnit.h"

inline constexpr const char* kAUGraphErrorDomain = "AUGraphErrorDomain";
inline constexpr const char* kAudioUnitErrorDomain = "AudioUnitErrorDomain";

// Statuses of the graph, with a platform's numbers.
inline constexpr int32_t kKyoStreamErr_NoGraph = -50;  // a parameter error: there is no graph
inline constexpr int32_t kKyoStreamErr_NodeNotFound = -10860;
inline constexpr int32_t kKyoStreamErr_InvalidConnection = -10861;
inline constexpr int32_t kKyoStreamErr_CannotDoInCurrentContext = -10863;

struct KyoError {
  std::string domain;
  int32_t code = 0;
};

class KyoStream;

// What an effect offers a stream (KyoEffect implements it): it adds its own unit as a
// node and remembers the stream and node it is in.
class KyoStreamEffect {
 public:
  virtual ~KyoStreamEffect() = default;
  virtual bool addToStream(KyoStream* stream, KyoError* error) = 0;
  virtual KyoStream* stream() const = 0;
  virtual int32_t node() const = 0;
  virtual void setStream(KyoStream* stream, int32_t node) = 0;
  virtual void closeEditor() {}
};

class KyoStream {
 public:
  static constexpr uint32_t kNodeCountFailure = 0x7FFFFFFF;

  KyoStream() = default;
  ~KyoStream();
  KyoStream(const KyoStream&) = delete;
  KyoStream& operator=(const KyoStream&) = delete;

  std::mutex& renderLock() { return m_renderLock; }

  bool create(KyoError* error = nullptr);
  bool destroy(KyoError* error = nullptr);
  bool hasGraph() const { return m_graph; }
  bool isOpen() const { return m_graph && m_open; }
  bool open(KyoError* error = nullptr);
  bool close(KyoError* error = nullptr);
  bool isInitialized() const { return m_graph && m_initialized; }
  bool initialize(KyoError* error = nullptr);
  bool uninitialize(KyoError* error = nullptr);
  bool isRunning() const { return m_graph && m_running; }
  bool start(KyoError* error = nullptr);
  // Returns once the graph really is stopped, so a unit may be reconfigured after it.
  bool stop(KyoError* error = nullptr);
  bool clearConnections(KyoError* error = nullptr);

  // Nothing here measures the load of a hand-pulled graph: always 0.
  float cpuLoad() const { return 0.0f; }
  // kNodeCountFailure (and a log line) without a graph.
  uint32_t numberOfNodes() const;

  bool addEffect(KyoStreamEffect* effect, KyoError* error = nullptr);
  // True for nothing or an effect of another stream. The effect leaves the stream even
  // when the removal of its node fails.
  bool removeEffect(KyoStreamEffect* effect, KyoError* error = nullptr);
  bool containsEffect(const KyoStreamEffect* effect) const;
  KyoAudioUnit* audioUnitForEffect(const KyoStreamEffect* effect) const;

  // Node numbers start at 1; 0 is no node. Each answers a status (0 is success).
  int32_t addNode(std::shared_ptr<KyoAudioUnit> unit, int32_t* node);
  int32_t removeNode(int32_t node);
  int32_t connectOutputOfNode(int32_t sourceNode, uint32_t sourceBus, int32_t destinationNode, uint32_t destinationBus);
  int32_t setInputCallback(const KyoRenderInfo& callback, int32_t node, uint32_t bus);
  int32_t disconnectInputOfNode(int32_t node, uint32_t bus);
  KyoAudioUnit* audioUnitForNode(int32_t node) const;

 private:
  bool answer(int32_t status, KyoError* error, const char* function, int line) const;

  struct Node {
    std::shared_ptr<KyoAudioUnit> unit;
    std::vector<uint32_t> connectedInputs;  // input busses this stream connected or gave a callback
  };

  std::mutex m_renderLock;
  bool m_graph = false;
  bool m_open = false;
  bool m_initialized = false;
  bool m_running = false;
  int32_t m_nextNode = 1;
  std::map<int32_t, Node> m_nodes;  // in the order of adding
};
