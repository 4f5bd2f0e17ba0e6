#include "effects/KyoLV2Worker.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

KyoLV2MessageRing::KyoLV2MessageRing(uint32_t capacity) : m_bytes(capacity), m_mask(capacity - 1) {}

void KyoLV2MessageRing::copyIn(uint32_t position, const void* data, uint32_t size) {
  const uint32_t start = position & m_mask;
  const uint32_t first = std::min(size, capacity() - start);
  std::memcpy(m_bytes.data() + start, data, first);
  std::memcpy(m_bytes.data(), static_cast<const uint8_t*>(data) + first, size - first);
}

void KyoLV2MessageRing::copyOut(uint32_t position, void* data, uint32_t size) const {
  const uint32_t start = position & m_mask;
  const uint32_t first = std::min(size, capacity() - start);
  std::memcpy(data, m_bytes.data() + start, first);
  std::memcpy(static_cast<uint8_t*>(data) + first, m_bytes.data(), size - first);
}

bool KyoLV2MessageRing::write(const void* data, uint32_t size) {
  const uint32_t write = m_write.load(std::memory_order_relaxed);
  const uint32_t used = write - m_read.load(std::memory_order_acquire);
  if (size > capacity() || uint64_t(size) + sizeof(uint32_t) > uint64_t(capacity() - used)) return false;
  copyIn(write, &size, sizeof size);
  if (size) copyIn(write + sizeof(uint32_t), data, size);
  m_write.store(write + uint32_t(sizeof(uint32_t)) + size, std::memory_order_release);
  return true;
}

uint32_t KyoLV2MessageRing::nextSize() const {
  const uint32_t read = m_read.load(std::memory_order_relaxed);
  if (m_write.load(std::memory_order_acquire) - read < sizeof(uint32_t)) return 0;
  uint32_t size;
  copyOut(read, &size, sizeof size);
  return size;
}

bool KyoLV2MessageRing::read(void* data, uint32_t dataCapacity, uint32_t* size) {
  const uint32_t read = m_read.load(std::memory_order_relaxed);
  // The writer publishes length and body together, so a whole length means a whole message.
  if (m_write.load(std::memory_order_acquire) - read < sizeof(uint32_t)) return false;
  uint32_t length;
  copyOut(read, &length, sizeof length);
  if (length > dataCapacity) return false;
  if (length) copyOut(read + sizeof(uint32_t), data, length);
  *size = length;
  m_read.store(read + uint32_t(sizeof(uint32_t)) + length, std::memory_order_release);
  return true;
}

KyoLV2Worker::KyoLV2Worker(uint32_t capacity)
    : m_requests(capacity), m_responses(capacity), m_workBuffer(capacity), m_responseBuffer(capacity) {
  sem_init(&m_wake, 0, 0);
  m_schedule = {this, scheduleWork};
  m_feature = {LV2_WORKER__schedule, &m_schedule};
}

KyoLV2Worker::~KyoLV2Worker() {
  stop();
  sem_destroy(&m_wake);
}

void KyoLV2Worker::start(LV2_Handle handle, const LV2_Worker_Interface* interface) {
  stop();
  m_handle = handle;
  m_interface = interface;
  if (!interface || !interface->work) return;
  m_quit.store(false);
  m_thread = std::thread([this] { work(); });
}

void KyoLV2Worker::stop() {
  if (m_thread.joinable()) {
    m_quit.store(true);
    sem_post(&m_wake);
    m_thread.join();
  }
  m_requests.clear();
  m_responses.clear();
}

// Render thread (or the thread of a state restore): never waits, never allocates.
LV2_Worker_Status KyoLV2Worker::scheduleWork(LV2_Worker_Schedule_Handle handle, uint32_t size, const void* data) {
  auto* worker = static_cast<KyoLV2Worker*>(handle);
  if (!worker->m_interface || !worker->m_requests.write(data, size)) {
    worker->m_dropped.fetch_add(1, std::memory_order_relaxed);
    return LV2_WORKER_ERR_NO_SPACE;
  }
  sem_post(&worker->m_wake);  // async-signal-safe: no lock
  return LV2_WORKER_SUCCESS;
}

// Worker thread.
LV2_Worker_Status KyoLV2Worker::respond(LV2_Worker_Respond_Handle handle, uint32_t size, const void* data) {
  auto* worker = static_cast<KyoLV2Worker*>(handle);
  return worker->m_responses.write(data, size) ? LV2_WORKER_SUCCESS : LV2_WORKER_ERR_NO_SPACE;
}

void KyoLV2Worker::work() {
  while (true) {
    while (sem_wait(&m_wake) != 0 && errno == EINTR) {
    }
    if (m_quit.load()) return;
    uint32_t size = 0;
    while (m_requests.read(m_workBuffer.data(), (uint32_t)m_workBuffer.size(), &size)) {
      const LV2_Worker_Status status = m_interface->work(m_handle, respond, this, size, m_workBuffer.data());
      if (status != LV2_WORKER_SUCCESS) KYO_LOG_AT(1, "LV2 worker: a job failed with status %d", (int)status);
      if (m_quit.load()) return;
    }
  }
}

void KyoLV2Worker::deliverResponses() {
  if (!m_interface || !m_interface->work_response) return;
  uint32_t size = 0;
  while (m_responses.read(m_responseBuffer.data(), (uint32_t)m_responseBuffer.size(), &size)) {
    m_interface->work_response(m_handle, size, m_responseBuffer.data());
  }
}

void KyoLV2Worker::endRun() {
  if (m_interface && m_interface->end_run) m_interface->end_run(m_handle);
}
