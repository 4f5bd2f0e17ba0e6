#include "foundation/KyoNotificationCenter.h"

#include <algorithm>

struct KyoNotificationCenter::Entry {
  KyoNotificationCenter::Token token = 0;
  std::string name;
  const void* sender = nullptr;
  KyoNotificationCenter::Callback callback;
  // Both under the center's mutex.
  bool removed = false;
  int callsInFlight = 0;
};

namespace {
// The entries whose callbacks are running on this thread, innermost last, so that an
// observer removing itself from its own callback does not wait for itself.
thread_local std::vector<const void*> tDelivering;
}  // namespace

KyoNotificationCenter::KyoNotificationCenter() = default;
KyoNotificationCenter::~KyoNotificationCenter() = default;

KyoNotificationCenter& KyoNotificationCenter::defaultCenter() {
  // Never destroyed: a worker that ends after main (a fade, a hard stop) may still
  // let go of an object that removes its observers.
  static KyoNotificationCenter& center = *new KyoNotificationCenter;
  return center;
}

KyoNotificationCenter::Token KyoNotificationCenter::addObserver(const std::string& name,
                                                                Callback callback,
                                                                const void* sender) {
  auto entry = std::make_shared<Entry>();
  entry->name = name;
  entry->sender = sender;
  entry->callback = std::move(callback);
  std::lock_guard<std::mutex> lock(m_mutex);
  entry->token = m_nextToken++;
  m_entries.push_back(entry);
  return entry->token;
}

void KyoNotificationCenter::removeObserver(Token token) {
  if (token == 0) return;
  std::unique_lock<std::mutex> lock(m_mutex);
  auto it = std::find_if(m_entries.begin(), m_entries.end(),
                         [token](const auto& e) { return e->token == token; });
  if (it == m_entries.end()) return;
  std::shared_ptr<Entry> entry = *it;
  m_entries.erase(it);
  entry->removed = true;
  const int own = static_cast<int>(
      std::count(tDelivering.begin(), tDelivering.end(), static_cast<const void*>(entry.get())));
  m_callsFinished.wait(lock, [&] { return entry->callsInFlight <= own; });
}

void KyoNotificationCenter::postNotification(const KyoNotification& notification) {
  std::vector<std::shared_ptr<Entry>> targets;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& e : m_entries) {
      if (!e->name.empty() && e->name != notification.name) continue;
      if (e->sender != nullptr && e->sender != notification.sender) continue;
      targets.push_back(e);
    }
  }
  for (const auto& e : targets) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (e->removed) continue;
      ++e->callsInFlight;
    }
    tDelivering.push_back(e.get());
    struct Done {
      KyoNotificationCenter* center;
      Entry* entry;
      ~Done() {
        tDelivering.pop_back();
        std::lock_guard<std::mutex> lock(center->m_mutex);
        --entry->callsInFlight;
        if (entry->removed) center->m_callsFinished.notify_all();
      }
    } done{this, e.get()};
    e->callback(notification);
  }
}

void KyoNotificationCenter::postNotification(const std::string& name, const void* sender,
                                             KyoUserInfo userInfo) {
  postNotification(KyoNotification{name, sender, std::move(userInfo)});
}

size_t KyoNotificationCenter::observerCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_entries.size();
}

KyoScopedObserver::KyoScopedObserver(KyoNotificationCenter& center, const std::string& name,
                                     KyoNotificationCenter::Callback callback,
                                     const void* sender)
    : m_center(&center), m_token(center.addObserver(name, std::move(callback), sender)) {}

KyoScopedObserver::~KyoScopedObserver() { reset(); }

KyoScopedObserver::KyoScopedObserver(KyoScopedObserver&& other) noexcept
    : m_center(other.m_center), m_token(other.m_token) {
  other.m_center = nullptr;
  other.m_token = 0;
}

KyoScopedObserver& KyoScopedObserver::operator=(KyoScopedObserver&& other) noexcept {
  if (this != &other) {
    reset();
    m_center = other.m_center;
    m_token = other.m_token;
    other.m_center = nullptr;
    other.m_token = 0;
  }
  return *this;
}

void KyoScopedObserver::reset() {
  if (m_center) m_center->removeObserver(m_token);
  m_center = nullptr;
  m_token = 0;
}
