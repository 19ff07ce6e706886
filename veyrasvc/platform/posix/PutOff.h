// What a thread puts off in order to do it in one go: the writes it gathers for event-driven pipes, and the wake-ups
// for the work items it queues (WorkPool.h). It is done before the thread waits, sleeps, asks a port or ends; a lock
// that is held elsewhere does not count as waiting.
#pragma once

#include <memory>

namespace Vantor::Sentrix::Platform {

class Pipe;

// The calling thread has gathered writes for that pipe.
void PutOffWrites(const std::shared_ptr<Pipe>& pipe);

// Does what the calling thread has put off. Every call that may block for long calls this first, with no lock held.
void BeforeBlocking();

} // namespace Vantor::Sentrix::Platform
