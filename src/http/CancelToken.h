#pragma once

#include <HttpTools/platform/Export.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace qz::http {

/// A cancel flag shared by the caller and the calls it starts. cancel() from any thread ends a
/// transfer waiting for data, or a backoff wait, within 100 ms: waits registered through
/// onCancel() are woken at once. Copies share one flag; a default token can be cancelled too.
///
/// A token made with Watching(flag) also counts a caller's `const bool*` flag as cancelled. Nobody
/// notifies such a flag, so waits look at it every PollMs at most. The code that sets the flag from
/// another thread must store it atomically (std::atomic_ref<bool>(flag).store(true)).
class HTTPTOOLS_API CancelToken {
public:
  static constexpr int PollMs = 50; ///< how often waits look at a watched caller's flag

  /// A new, uncancelled flag.
  CancelToken();
  static CancelToken Watching(const bool* flag); ///< null: an ordinary token

  /// Reads a caller's flag atomically; false for null.
  static bool IsSet(const bool* flag) {
    return flag && std::atomic_ref<bool>(const_cast<bool&>(*flag)).load(std::memory_order_relaxed);
  }

  /// Sets the flag and wakes the registered waits; any thread, idempotent.
  void cancel() const;
  /// True once cancel() ran or the watched flag is set.
  bool isCancelled() const;
  /// Whether a caller's flag is watched: waits must then poll.
  bool watchesFlag() const;

  /// Sleeps `ms` or until cancelled; false when cancelled.
  bool waitFor(std::chrono::milliseconds ms) const;

  /// `wake` runs (on the cancelling thread, once) when the token is cancelled, or at once when it
  /// already is. Returns an id for removeOnCancel, which returns only when `wake` is not running.
  uint64_t onCancel(std::function<void()> wake) const;
  void removeOnCancel(uint64_t id) const; ///< see onCancel; an unknown id is ignored

  struct State;

private:
  std::shared_ptr<State> m_state;
};

/// Keeps `wake` registered on a token for the scope's duration.
class HTTPTOOLS_API CancelRegistration {
public:
  /// Registers `wake` on `token` (see CancelToken::onCancel); the destructor removes it.
  CancelRegistration(const CancelToken& token, std::function<void()> wake)
      : m_token(token), m_id(token.onCancel(std::move(wake))) {}
  ~CancelRegistration() { m_token.removeOnCancel(m_id); }
  CancelRegistration(const CancelRegistration&) = delete;
  CancelRegistration& operator=(const CancelRegistration&) = delete;

private:
  CancelToken m_token;
  uint64_t m_id;
};

} // namespace qz::http
