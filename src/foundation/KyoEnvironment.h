#pragma once
// Process-wide log level and a small dictionary of named objects. No instances.

#include <any>
#include <string>
#include <vector>

// One IPv4 interface, addresses in dot notation.
struct KyoIPAddress {
  std::string name;
  std::string address;
  std::string netmask;
  std::string broadcast;  // address OR NOT netmask
};

class KyoEnvironment {
 public:
  KyoEnvironment() = delete;

  static long logLevel();
  static void setLogLevel(long level);

  // An empty value removes the key.
  static std::any objectForKey(const std::string& key);
  static void setObject(const std::any& object, const std::string& key);

  // Every IPv4 interface that getifaddrs lists, in its order; empty when it fails.
  static std::vector<KyoIPAddress> ipAddresses();
};

// Lines "at level 3" are written only when the log level is 3 or more.
#define KYO_LOG_AT(level, ...)                                 \
  do {                                                         \
    if (KyoEnvironment::logLevel() >= (level)) KyoLog(__VA_ARGS__); \
  } while (0)
