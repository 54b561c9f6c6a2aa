// One request at a time for an account.
//
// A code is checked by a select, a comparison and an update.  Whoever holds the lock of the user name across the three
// accepts a code once and loses no failure from the count.
//
// Differs  64 mutexes stand for all names, so two accounts may share one and wait for each other.  Names that differ in
//          the case of ASCII letters or in trailing blanks only share one always, since a collation may take them for
//          one name; other letters that a collation may take for equal (accents) are told apart.
// Threads  Taken before any other lock (the synchronisation's own apart); a thread holds one at a time.
// Memory   A reference to one of the mutexes, which live as long as the process.
#pragma once

#include <mutex>
#include <string_view>

namespace zelvan {

class AccountLock {
 public:
  // Holds nothing.
  AccountLock() = default;

  // Takes the lock of `user_name`, waiting as long as it takes.
  explicit AccountLock(std::string_view user_name) { lock(user_name); }

  // Lets go.
  ~AccountLock() = default;

  AccountLock(const AccountLock&) = delete;
  AccountLock& operator=(const AccountLock&) = delete;

  // Takes the lock of `user_name`, waiting as long as it takes.  A lock that is held is given back first.
  void lock(std::string_view user_name);

  // Lets go; does nothing when no lock is held.
  void unlock();

  // True while a lock is held.
  [[nodiscard]] bool owns() const { return held_.owns_lock(); }

 private:
  std::unique_lock<std::mutex> held_;
};

}  // namespace zelvan
