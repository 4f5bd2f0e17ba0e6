#include "audio/KyoStream.h"

#include <algorithm>

#include "foundation/KyoLog.h"

#define KYO_STREAM_ANSWER(status, error) answer((status), (error), __PRETTY_FUNCTION__, __LINE__)

KyoStream::~KyoStream() { destroy(nullptr); }

bool KyoStream::answer(int32_t status, KyoError* error, const char* function, int line) const {
  if (status == 0) return true;
  KyoLogStatus(status, function, line);
  if (error) *error = KyoError{kAUGraphErrorDomain, status};
  return false;
}

bool KyoStream::create(KyoError*) {
  if (m_graph) return true;
  m_graph = true;
  m_nextNode = 1;
  return true;
}

// The field is cleared whether or not the units let go cleanly.
bool KyoStream::destroy(KyoError*) {
  if (!m_graph) return true;
  m_running = false;
  for (auto& [id, node] : m_nodes) node.unit->uninitialize();
  m_nodes.clear();
  m_initialized = false;
  m_open = false;
  m_graph = false;
  return true;
}

bool KyoStream::open(KyoError* error) {
  if (!m_graph) return KYO_STREAM_ANSWER(kKyoStreamErr_NoGraph, error);
  m_open = true;
  return true;
}

bool KyoStream::close(KyoError* error) {
  if (!isOpen()) return true;
  if (m_initialized && !uninitialize(error)) return false;
  m_open = false;
  return true;
}

// Units initialize in the order they were added; a failure leaves all uninitialized.
bool KyoStream::initialize(KyoError* error) {
  if (isInitialized()) return true;
  if (!m_graph) return KYO_STREAM_ANSWER(kKyoStreamErr_NoGraph, error);
  if (!m_open) return KYO_STREAM_ANSWER(kKyoStreamErr_CannotDoInCurrentContext, error);
  for (auto& [id, node] : m_nodes) {
    int32_t status = node.unit->initialize();
    if (status != 0) {
      for (auto& [otherID, other] : m_nodes) other.unit->uninitialize();
      return KYO_STREAM_ANSWER(status, error);
    }
  }
  m_initialized = true;
  return true;
}

bool KyoStream::uninitialize(KyoError* error) {
  if (!isInitialized()) return true;
  if (m_running && !stop(error)) return false;
  for (auto& [id, node] : m_nodes) node.unit->uninitialize();
  m_initialized = false;
  return true;
}

bool KyoStream::start(KyoError* error) {
  if (!m_graph) return false;
  if (!m_initialized) return KYO_STREAM_ANSWER(kKyoStreamErr_CannotDoInCurrentContext, error);
  m_running = true;
  return true;
}

bool KyoStream::stop(KyoError*) {
  if (!m_graph) return true;
  // Nothing renders on a thread of the stream's own, so the stop is complete at once;
  // the loop keeps the promise that a caller may reconfigure when this returns.
  do {
    m_running = false;
  } while (isRunning());
  return true;
}

bool KyoStream::clearConnections(KyoError* error) {
  if (!m_graph) return KYO_STREAM_ANSWER(kKyoStreamErr_NoGraph, error);
  for (auto& [id, node] : m_nodes) {
    for (uint32_t bus : node.connectedInputs) node.unit->disconnectInput(bus);
    node.connectedInputs.clear();
  }
  return true;
}

uint32_t KyoStream::numberOfNodes() const {
  if (!m_graph) {
    KYO_LOG_STATUS(kKyoStreamErr_NoGraph);
    return kNodeCountFailure;
  }
  return uint32_t(m_nodes.size());
}

// --- Nodes ---

int32_t KyoStream::addNode(std::shared_ptr<KyoAudioUnit> unit, int32_t* node) {
  if (!m_graph) return kKyoStreamErr_NoGraph;
  if (!unit || !node) return kKyoAudioUnitErr_InvalidPropertyValue;
  for (auto& [id, existing] : m_nodes)
    if (existing.unit == unit) return kKyoStreamErr_InvalidConnection;
  *node = m_nextNode++;
  m_nodes[*node] = Node{std::move(unit), {}};
  return 0;
}

// Other units' inputs that pulled the removed one are disconnected with it.
int32_t KyoStream::removeNode(int32_t node) {
  if (node == 0) return 0;
  if (!m_graph) return kKyoStreamErr_NoGraph;
  auto it = m_nodes.find(node);
  if (it == m_nodes.end()) return kKyoStreamErr_NodeNotFound;
  KyoAudioUnit* unit = it->second.unit.get();
  for (auto& [id, other] : m_nodes) {
    if (id == node) continue;
    auto& inputs = other.connectedInputs;
    for (auto bus = inputs.begin(); bus != inputs.end();) {
      if (other.unit->inputUnit(*bus) == unit) {
        other.unit->disconnectInput(*bus);
        bus = inputs.erase(bus);
      } else {
        ++bus;
      }
    }
  }
  for (uint32_t bus : it->second.connectedInputs) unit->disconnectInput(bus);
  unit->uninitialize();
  m_nodes.erase(it);
  return 0;
}

int32_t KyoStream::connectOutputOfNode(int32_t sourceNode, uint32_t sourceBus, int32_t destinationNode,
                                       uint32_t destinationBus) {
  if (!m_graph) return kKyoStreamErr_NoGraph;
  auto source = m_nodes.find(sourceNode);
  auto destination = m_nodes.find(destinationNode);
  if (source == m_nodes.end() || destination == m_nodes.end()) return kKyoStreamErr_NodeNotFound;
  if (sourceNode == destinationNode) return kKyoStreamErr_InvalidConnection;
  int32_t status = destination->second.unit->connectInput(destinationBus, source->second.unit.get(), sourceBus);
  if (status != 0) return status;
  auto& inputs = destination->second.connectedInputs;
  if (std::find(inputs.begin(), inputs.end(), destinationBus) == inputs.end()) inputs.push_back(destinationBus);
  return 0;
}

int32_t KyoStream::setInputCallback(const KyoRenderInfo& callback, int32_t node, uint32_t bus) {
  if (!m_graph) return kKyoStreamErr_NoGraph;
  auto it = m_nodes.find(node);
  if (it == m_nodes.end()) return kKyoStreamErr_NodeNotFound;
  int32_t status = it->second.unit->setRenderCallback(bus, callback);
  if (status != 0) return status;
  auto& inputs = it->second.connectedInputs;
  if (std::find(inputs.begin(), inputs.end(), bus) == inputs.end()) inputs.push_back(bus);
  return 0;
}

int32_t KyoStream::disconnectInputOfNode(int32_t node, uint32_t bus) {
  if (!m_graph) return kKyoStreamErr_NoGraph;
  auto it = m_nodes.find(node);
  if (it == m_nodes.end()) return kKyoStreamErr_NodeNotFound;
  int32_t status = it->second.unit->disconnectInput(bus);
  auto& inputs = it->second.connectedInputs;
  inputs.erase(std::remove(inputs.begin(), inputs.end(), bus), inputs.end());
  return status;
}

KyoAudioUnit* KyoStream::audioUnitForNode(int32_t node) const {
  auto it = m_nodes.find(node);
  if (it == m_nodes.end()) {
    KYO_LOG_STATUS(kKyoStreamErr_NodeNotFound);
    return nullptr;
  }
  return it->second.unit.get();
}

// --- Effects ---

bool KyoStream::addEffect(KyoStreamEffect* effect, KyoError* error) {
  if (!effect) return KYO_STREAM_ANSWER(kKyoAudioUnitErr_InvalidPropertyValue, error);
  return effect->addToStream(this, error);
}

bool KyoStream::containsEffect(const KyoStreamEffect* effect) const {
  return effect && effect->stream() == this && m_nodes.count(effect->node()) != 0;
}

KyoAudioUnit* KyoStream::audioUnitForEffect(const KyoStreamEffect* effect) const {
  return effect ? audioUnitForNode(effect->node()) : nullptr;
}

bool KyoStream::removeEffect(KyoStreamEffect* effect, KyoError* error) {
  if (!containsEffect(effect)) return true;
  effect->closeEditor();
  int32_t status = removeNode(effect->node());
  effect->setStream(nullptr, 0);
  return KYO_STREAM_ANSWER(status, error);
}
