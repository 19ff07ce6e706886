// The shared-memory file behind a named mutex.
//
// A name is a file in /dev/shm that holds one process-shared robust mutex. Everyone who has it open holds a shared
// lock (flock) on it for as long as that lasts, so whoever gets the exclusive lock knows that nobody else uses the
// file: what is in it was left by a process that died, and may be initialised afresh; at the end, the file may be
// unlinked. Two races remain, and both are closed by looking again once the shared lock is held:
//   - the file was unlinked between our open and our lock: the name is no longer it, start over;
//   - turning the exclusive lock into a shared one lets another process slip in and initialise the file once more
//     (nobody has used the mutex by then): the one who initialised it last is the one who created the mutex.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Vantor::Sentrix::Platform {

// What the file holds. Programs of another build may share the name: the first field tells whether they agree.
struct SharedMutex {
    std::uint64_t layout;      // written last; 0 while the file is not initialised
    std::uint64_t incarnation; // random, a new one each time the file is initialised
    pthread_mutex_t mutex;
};

// A recursive robust mutex; `shared` is PTHREAD_PROCESS_SHARED or PTHREAD_PROCESS_PRIVATE.
bool InitRobustMutex(pthread_mutex_t* mutex, int shared);

class MutexFile {
public:
    enum class Mode { kOpenOnly, kCreateOrOpen };

    // `created` tells whether the mutex is new. Fails: null with the last error set.
    static std::unique_ptr<MutexFile> Open(const std::string& path, Mode mode, bool& created);

    // Requires: no thread of this process holds the mutex: its memory goes.
    ~MutexFile();
    MutexFile(const MutexFile&) = delete;
    MutexFile& operator=(const MutexFile&) = delete;

    pthread_mutex_t* Mutex() { return &m_shared->mutex; }

    // The file for a name; names that differ give files that differ. Empty when OpenSSL is missing to shorten a long
    // one.
    static std::string PathFor(const std::string& name);

private:
    enum class Outcome { kDone, kAgain, kFailed };

    MutexFile(std::string path, int descriptor) : m_path(std::move(path)), m_descriptor(descriptor) {}

    Outcome Join(Mode mode, bool& created);
    bool IsLinked() const;
    bool Map();
    bool Initialise();

    const std::string m_path;
    const int m_descriptor;
    SharedMutex* m_shared = nullptr;
};

} // namespace Vantor::Sentrix::Platform
