#pragma once
// Named notifications with a sender and user info, delivered synchronously on the
// posting thread, in the order the observers were added.
//
// Any thread may post, add or remove. An observer may remove itself or others from
// inside its callback; a removed observer receives nothing more once removeObserver
// returns. removeObserver waits for calls of that observer still running on other
// threads, so an object may remove its observer and then free itself safely. Never
// call it for an observer whose callback is blocked waiting on the remover's thread.
//
// Not for the render thread: posting allocates and takes a lock.

#include <any>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using KyoUserInfo = std::map<std::string, std::any>;

struct KyoNotification {
  std::string name;
  const void* sender = nullptr;
  KyoUserInfo userInfo;

  // The value of a user info key as T, or null when absent or of another type.
  template <typename T>
  const T* userInfoValue(const std::string& key) const {
    auto it = userInfo.find(key);
    return it == userInfo.end() ? nullptr : std::any_cast<T>(&it->second);
  }
};

class KyoNotificationCenter {
 public:
  using Callback = std::function<void(const KyoNotification&)>;
  // 0 is never a valid token.
  using Token = uint64_t;

  KyoNotificationCenter();
  ~KyoNotificationCenter();
  KyoNotificationCenter(const KyoNotificationCenter&) = delete;
  KyoNotificationCenter& operator=(const KyoNotificationCenter&) = delete;

  // The process-wide center.
  static KyoNotificationCenter& defaultCenter();

  // An empty name observes every notification; a null sender observes every sender.
  Token addObserver(const std::string& name, Callback callback, const void* sender = nullptr);
  // Unknown and already removed tokens are ignored.
  void removeObserver(Token token);

  void postNotification(const KyoNotification& notification);
  void postNotification(const std::string& name, const void* sender = nullptr,
                        KyoUserInfo userInfo = {});

  size_t observerCount() const;

 private:
  struct Entry;

  // Guards m_entries and every entry's removed flag and call count; taken by any
  // thread, never held while a callback runs.
  mutable std::mutex m_mutex;
  std::condition_variable m_callsFinished;
  std::vector<std::shared_ptr<Entry>> m_entries;
  Token m_nextToken = 1;
};

// Removes its observer when destroyed.
class KyoScopedObserver {
 public:
  KyoScopedObserver() = default;
  KyoScopedObserver(KyoNotificationCenter& center, const std::string& name,
                    KyoNotificationCenter::Callback callback, const void* sender = nullptr);
  ~KyoScopedObserver();
  KyoScopedObserver(KyoScopedObserver&& other) noexcept;
  KyoScopedObserver& operator=(KyoScopedObserver&& other) noexcept;
  KyoScopedObserver(const KyoScopedObserver&) = delete;
  KyoScopedObserver& operator=(const KyoScopedObserver&) = delete;

  void reset();
  KyoNotificationCenter::Token token() const { return m_token; }

 private:
  KyoNotificationCenter* m_center = nullptr;
  KyoNotificationCenter::Token m_token = 0;
};
