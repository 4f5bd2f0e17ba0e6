#pragma once
// The LV2 worker of one plugin instance: the plugin schedules work from its run
// (render thread) into a lock-free ring, a thread of ours does the work, and the
// responses go back to the plugin at the start of its next run, followed by
// end_run after that run.
//
// Threads: scheduleWork (through the feature) and the delivery calls on the render
// thread, neither allocating nor waiting; start and stop on the main thread, with
// the render thread kept out of the instance (the unit's run lock).

#include <lv2/core/lv2.h>
#include <lv2/worker/worker.h>
#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

// Messages of at most capacity - 4 bytes, each with a 4-byte length before it.
// One writer thread and one reader thread; write is all or nothing.
class KyoLV2MessageRing {
 public:
  // capacity: a power of two, in bytes.
  explicit KyoLV2MessageRing(uint32_t capacity);
  bool write(const void* data, uint32_t size);
  // The next message's length, or 0 when none is whole in the ring.
  uint32_t nextSize() const;
  // Copies the next message into data (at least nextSize() bytes) and removes it.
  bool read(void* data, uint32_t capacity, uint32_t* size);
  void clear() { m_read.store(m_write.load(std::memory_order_acquire), std::memory_order_release); }
  uint32_t capacity() const { return (uint32_t)m_bytes.size(); }

 private:
  void copyIn(uint32_t position, const void* data, uint32_t size);
  void copyOut(uint32_t position, void* data, uint32_t size) const;

  std::vector<uint8_t> m_bytes;
  uint32_t m_mask;
  std::atomic<uint32_t> m_write{0};  // free-running byte counts
  std::atomic<uint32_t> m_read{0};
  static_assert(std::atomic<uint32_t>::is_always_lock_free);
};

class KyoLV2Worker {
 public:
  static constexpr uint32_t kDefaultCapacity = 1u << 16;
  explicit KyoLV2Worker(uint32_t capacity = kDefaultCapacity);
  ~KyoLV2Worker();
  KyoLV2Worker(const KyoLV2Worker&) = delete;
  KyoLV2Worker& operator=(const KyoLV2Worker&) = delete;

  // The worker:schedule feature to hand the plugin when it is instantiated.
  const LV2_Feature* feature() const { return &m_feature; }

  // Main thread. Starts the thread that calls interface->work for handle; a null
  // interface (a plugin without the worker extension) starts nothing.
  void start(LV2_Handle handle, const LV2_Worker_Interface* interface);
  // Main thread. Finishes the work under way, drops what is queued, joins the thread.
  void stop();
  bool isRunning() const { return m_thread.joinable(); }

  // Render thread: the responses that are ready, before the plugin's run.
  void deliverResponses();
  // Render thread: after the plugin's run.
  void endRun();

  // Requests the plugin made that did not fit in the ring.
  uint64_t droppedRequests() const { return m_dropped.load(std::memory_order_relaxed); }

 private:
  static LV2_Worker_Status scheduleWork(LV2_Worker_Schedule_Handle handle, uint32_t size, const void* data);
  static LV2_Worker_Status respond(LV2_Worker_Respond_Handle handle, uint32_t size, const void* data);
  void work();

  KyoLV2MessageRing m_requests;
  KyoLV2MessageRing m_responses;
  std::vector<uint8_t> m_workBuffer;      // worker thread
  std::vector<uint8_t> m_responseBuffer;  // render thread
  LV2_Worker_Schedule m_schedule = {};
  LV2_Feature m_feature = {};
  LV2_Handle m_handle = nullptr;
  const LV2_Worker_Interface* m_interface = nullptr;
  sem_t m_wake;
  std::atomic<bool> m_quit{false};
  std::atomic<uint64_t> m_dropped{0};
  static_assert(std::atomic<bool>::is_always_lock_free);
  static_assert(std::atomic<uint64_t>::is_always_lock_free);
  std::thread m_thread;
};
