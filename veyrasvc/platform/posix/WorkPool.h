// What the pool and the threads that serve pipes agree on.
//
// A thread that serves a pipe queues a burst of work items for the messages of one read. Waking a thread for each would
// cost more than the items: so its wake-ups are put off until the burst is over, that is until the thread waits or
// reads the socket again, or kDeferredItems have come. Threads of the pool that are awake take such items meanwhile.
#pragma once

namespace Vantor::Sentrix::Platform {

// The calling thread's wake-ups are put off from now on. It must call WakeForDeferredWork before it blocks.
void DeferWorkWakeUps();

// Wakes for what the calling thread has queued; does nothing most of the time.
void WakeForDeferredWork();

} // namespace Vantor::Sentrix::Platform
