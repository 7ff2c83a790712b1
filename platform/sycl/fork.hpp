// What a forked process needs: it has one thread, and everything else as it was, locks included.
#pragma once

#include <new>

namespace host {

namespace fork_detail {
struct held {
  void* mutex;
  void (*lock)(void*);
  void (*unlock)(void*);
  void (*renew)(void*);
  const held* before = nullptr;  // the one that was added before
};
void hold(held* one);
}  // namespace fork_detail

// Forking waits for `mutex`, so that what it guards is whole in the forked process, and the mutex free. For ones that
// live as long as the process, are made as it starts (the initialisation of a static variable inside a function would
// not end in a process forked meanwhile), and under which no other of them is taken.
template <class Mutex>
Mutex& held_while_forking(Mutex* mutex) {
  fork_detail::hold(new fork_detail::held{
      mutex, [](void* m) { static_cast<Mutex*>(m)->lock(); }, [](void* m) { static_cast<Mutex*>(m)->unlock(); },
      [](void* m) { new (m) Mutex; }});  // to unlock it is for the thread that locked it, whose id changed
  return *mutex;
}

}  // namespace host
