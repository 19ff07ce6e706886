// Byte streams, and the serialisation format of the library on top of them.
//
//   Stream            the base: positioned reads and writes of raw bytes
//     MemoryrStream   bytes in one heap block that grows, or laid over a caller's buffer
//     HandleStream    a file handle that somebody else owns
//       FileStream    a file that it opens and closes itself
//   StreamWriter      typed values to bytes on any stream
//   StreamReader      and back
//
// Threads: a stream belongs to one thread at a time, together with its reader or writer; different streams are
// independent. No class here starts threads or calls back.
// Fails: with a count, a position or -1, and a line at ERROR in the library's log. Without memory for what it should
// hold or deliver an operation fails in the same way. Nothing throws, with exceptions that are named: ToString and
// ToWString, and copying a caller's own strings into a call, can throw std::bad_alloc.
// Owns: pointers and references are borrowed for the call, unless a declaration says otherwise.
#pragma once

#include "veyrasvc/platform/Export.h"
#include "veyrasvc/platform/Win32.h"

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

namespace Vantor::Sentrix {

// Of the integer types of 64 bits, std::int64_t is `long` on some systems and `long long` on others. A template with
// this condition, beside an operation that takes std::int64_t, takes the other one.
template <class T> using If64Bits = std::enable_if_t<std::is_integral_v<T> && sizeof(T) == sizeof(std::int64_t)>;

// An abstract stream of bytes with a position.
// Lifetime: never destroyed through a pointer to Stream; whoever makes a stream knows its class.
class VEYRASVC_API Stream {
public:
    // What Seek counts from.
    enum Origin : int { kFromStart = 0, kFromCurrent = 1, kFromEnd = 2 };

    // Copies up to `count` bytes from the position into `buffer` and advances.
    // Returns: the bytes copied; 0 at the end of the stream or when `buffer` is null.
    virtual unsigned int Read(void* buffer, unsigned int count) = 0;

    // Copies `count` bytes to the position and advances.
    // Returns: the bytes written; 0 when nothing could be.
    virtual unsigned int Write(const void* buffer, unsigned int count) = 0;

    // Moves the position to `offset` bytes from an Origin. Returns: the new position, -1 where a system call failed.
    virtual std::int64_t Seek(std::int64_t offset, int origin) = 0;

    // The size in bytes; -1 when the stream cannot tell. The position stays.
    virtual std::int64_t GetSize();

    // Changes the size. A stream that cannot does nothing.
    virtual void SetSize(const std::int64_t newSize);
    void SetSize(int newSize) { SetSize(static_cast<std::int64_t>(newSize)); }
    template <class T, class = If64Bits<T>> void SetSize(T newSize) { SetSize(static_cast<std::int64_t>(newSize)); }

    // Read and Write for callers that expect all or trouble. A null buffer or a count of 0 does nothing.
    // Fails: logs "read buffer error!" or "write buffer error!"; bytes that did not arrive leave `buffer` as it was.
    void ReadBuffer(void* buffer, unsigned int count);
    void WriteBuffer(const void* buffer, unsigned int count);

    std::int64_t GetPosition() { return Seek(0, kFromCurrent); }
    void SetPosition(std::int64_t position) { Seek(position, kFromStart); }

    // Writes `count` bytes of `source`, from its position on, to this stream; with a count of 0 all of `source`, which
    // is rewound first. Bytes that the source cannot deliver are logged and written all the same, as zeros or as a
    // repetition of earlier ones: the count is the caller's promise.
    // Returns: the count; 0 for a negative one or without memory for the transfer buffer.
    std::int64_t CopyFrom(Stream& source, std::int64_t count);

    // Writes what is left in `in`. Returns: the bytes taken from `in`.
    std::int64_t CopyFrom(std::istream& in);

    // Writes everything from the position to the end to `out`. Returns: the bytes handed to `out`.
    std::int64_t CopyTo(std::ostream& out);

protected:
    Stream() = default;
    Stream(const Stream&) = default;
    Stream& operator=(const Stream&) = default;
    ~Stream() = default;
};

// A stream over a file handle.
// Owns: nothing; the handle is closed by whoever made it, and not before the stream is done with it.
class VEYRASVC_API HandleStream : public Stream {
public:
    explicit HandleStream(HANDLE handle) : m_handle(handle) {}

    unsigned int Read(void* buffer, unsigned int count) override;

    // A disk that becomes full, or a limit on the size, ends a write in between: the count and the position then tell
    // what the file has.
    unsigned int Write(const void* buffer, unsigned int count) override;
    std::int64_t Seek(std::int64_t offset, int origin) override;

    // Cuts or extends the file and leaves the position at its new end.
    // Fails: logs "set stream size failed!"; a negative size changes nothing at all.
    void SetSize(const std::int64_t newSize) override;

    // False when the handle is INVALID_HANDLE_VALUE. A null handle counts as valid; nothing can be read from it.
    virtual bool IsValid();

    HANDLE m_handle; // INVALID_HANDLE_VALUE: no file
};

// A file, open from construction to destruction.
// Fails: a file that cannot be opened gives a stream for which IsValid() is false; nothing is logged.
class VEYRASVC_API FileStream : public HandleStream {
public:
    // The mode is one of these, or one access joined with one sharing by |. Anything else opens nothing.
    enum Mode : std::uint16_t {
        kCreate = 0xFFFF, // a new or emptied file for reading and writing, shared with nobody
        kRead = 0,
        kWrite = 1,
        kReadWrite = 2,
        kShareNone = 0x10, // the same as naming no sharing
        kShareRead = 0x20,
        kShareWrite = 0x30,
        kShareAll = 0x40,
    };

    FileStream(const std::string& name, std::uint16_t mode);
    FileStream(const std::wstring& name, std::uint16_t mode);
    ~FileStream();
    FileStream(const FileStream&) = delete;
    FileStream& operator=(const FileStream&) = delete;
};

// Bytes in memory.
//
// A growable stream keeps them in one heap block of its own that grows in steps of 8192 bytes. A stream made over a
// buffer has a fixed capacity: it never writes past it, and what does not fit is refused as a whole.
// Limits: less than 4 GiB. A write, size or capacity beyond that, or a negative one, is refused.
// Fails: a refusal logs "Can not set capacity!", a failed allocation "Realloc Failed!"; the stream keeps its block, its
// bytes and its size then, and a write returns 0.
class VEYRASVC_API MemoryrStream : public Stream {
public:
    MemoryrStream() = default;

    // A growable stream of `size` zero bytes, at position 0.
    explicit MemoryrStream(std::int64_t size);

    // A stream of fixed capacity that holds the `length` bytes of `buffer`, at position 0. With `attach` it works in
    // the caller's buffer, which must outlive it and which it never frees; without, in a copy of its own.
    // Fails: a null buffer or a length below 1 logs "invalid argument!", a copy without memory "stream write error!";
    // the stream is then empty and growable.
    MemoryrStream(char* buffer, int length, bool attach);

    // Growable streams with a copy of some bytes, at position `length`. Null or nothing leaves them empty; a terminator
    // is not stored. Fails: without memory they stay empty and log "stream write error!".
    MemoryrStream(const char* data, int length);
    explicit MemoryrStream(const char* text);
    MemoryrStream(const MemoryrStream& other);

    ~MemoryrStream();
    MemoryrStream& operator=(const MemoryrStream&) = delete;

    // 0 also when the position is negative or past the end.
    unsigned int Read(void* buffer, unsigned int count) override;

    // All or nothing. A gap between the end and the position is filled with zeros. `buffer` may lie in this stream.
    unsigned int Write(const void* buffer, unsigned int count) override;

    // The position may go anywhere, also below 0 and past the end. An origin that does not exist moves nothing.
    std::int64_t Seek(std::int64_t offset, int origin) override;

    // New bytes are zeros. A position past the new end moves there; else it stays.
    void SetSize(const std::int64_t newSize) override;

    // Makes the block `newCapacity` bytes long, rounded up to 8192 unless that is exactly the size; 0 frees it. Bytes
    // that no longer fit are gone.
    void SetCapacity(std::int64_t newCapacity);
    std::int64_t GetCapacity() const { return m_capacity; }

    // The block; null when there is none. Valid until the next write or change of size or capacity.
    char* GetMemory() { return m_memory; }
    const char* GetMemory() const { return m_memory; }

    // Frees the block of a growable stream. One of fixed capacity keeps it and logs its refusal, twice, but is empty.
    void Clear();

    std::string ToString() const;

    // The bytes as 16-bit units in the order of the host; an odd last byte makes a unit with a zero. Where a wchar_t is
    // wider, a surrogate pair makes one.
    std::wstring ToWString() const;

    // Append at the end, whatever the position is, and leave the position there. Appending a stream to itself doubles
    // it. Null, or a length or count below 1, changes nothing.
    // Fails: logs "stream write error!" when the bytes do not fit; the stream keeps what it had.
    MemoryrStream& Append(const MemoryrStream& other);
    MemoryrStream& Append(const char* data, int length);
    MemoryrStream& Append(const char* text);
    MemoryrStream& Append(char value, int count);

    // Clear(), then the same. Assigning a stream to itself empties it.
    // Requires: data and text do not lie in this stream.
    MemoryrStream& Assign(const MemoryrStream& other);
    MemoryrStream& Assign(const char* data, int length);
    MemoryrStream& Assign(const char* text);
    MemoryrStream& Assign(char value, int count);

    // Clear(), then all of `source`.
    void LoadFromStream(Stream& source);

protected:
    // A block for the capacity, which is rounded in place, with the bytes of the old one, which is gone. Null when the
    // capacity is 0, or after a failure that left everything as it was.
    char* Realloc(std::int64_t& newCapacity);

    // Installs a block unless it is null; the size is not used.
    void SetPointer(char* block, std::int64_t size);

private:
    friend class StreamReader; // takes bytes where they lie

    bool Grow(std::int64_t end, const char*& source);
    void AppendBytes(const char* data, std::int64_t length);

    char* m_memory = nullptr;
    std::int64_t m_size = 0;
    std::int64_t m_position = 0;
    std::int64_t m_capacity = 0;
    std::int64_t m_fixedSize = 0; // above 0: the capacity never changes
    bool m_attached = false;      // m_memory is the caller's
};

// Writes typed values to a stream: integers big-endian, strings and containers behind a 4-byte count, nothing between.
//
//   int, unsigned int       4 bytes; a bool is written as the int 0 or 1
//   64-bit integers         8 bytes
//   std::string             length in bytes, then the bytes
//   std::wstring            length in bytes, then UTF-16 units of 2 bytes each, big-endian too
//   float                   its text with six decimals, as a std::string
//   FILETIME                low half, high half
//   vectors                 number of elements, then each
//   maps                    number of entries, then key and value of each, in ascending order of the keys
//
// Owns: not the stream, which must outlive the writer. Nothing is buffered.
// Fails: a stream that takes less logs "write buffer error!", and so does a long wide string without memory for its
// UTF-16 form, of which nothing is written.
class VEYRASVC_API StreamWriter {
public:
    explicit StreamWriter(Stream* stream) : m_stream(stream) {}
    virtual ~StreamWriter();

    void Write(int value);
    void Write(unsigned int value);
    void Write(std::int64_t value);
    void Write(std::uint64_t value);
    template <class T, class = If64Bits<T>> void Write(T value) { Write(static_cast<std::uint64_t>(value)); }
    void Write(float value);
    void Write(const FILETIME& value);
    void Write(const std::string& value);

    // Where a wchar_t is wider than 16 bits, one above U+FFFF is written as a surrogate pair, a lone surrogate as it
    // is, and what is no code point as U+FFFD. A string of 0x40000000 units or more writes nothing at all.
    void Write(const std::wstring& value);

    void Write(const std::vector<int>& values);
    void Write(const std::vector<unsigned int>& values);
    void Write(const std::vector<std::string>& values);
    void Write(const std::vector<std::wstring>& values);
    void Write(const std::map<std::string, std::string>& values);
    void Write(const std::map<std::wstring, std::wstring>& values);

private:
    Stream* m_stream;
};

// Reads back what StreamWriter wrote.
//
// Owns: not the stream, which must outlive the reader. Nothing is read ahead.
// Fails: no read reports an error. Bytes that the stream does not have are logged ("read buffer error!") and count as
// zeros: a missing integer is 0, a missing string empty. A string that breaks off is filled up with zeros to its
// announced length or to the next multiple of 64 KiB, whichever is less: a length that lies costs at most twice the
// memory of what arrived and of one such piece. A string that there is no memory for is logged in the same way and
// empty, and the stream is behind it.
class VEYRASVC_API StreamReader {
public:
    explicit StreamReader(Stream* stream) : m_stream(stream) {}
    virtual ~StreamReader();

    int ReadInt();
    unsigned int ReadUInt();
    std::int64_t ReadInt64();
    std::uint64_t ReadUInt64();
    FILETIME ReadFileTime();

    // Empty when the length is 0 or, taken as a signed number, negative.
    std::string ReadString();

    // The same. An odd length also logs "stream error"; the stream then stays behind it.
    std::wstring ReadWString();

    // Append to the container what the stream holds; in a map a later value replaces an earlier one. The read ends with
    // the last announced element or where the stream does: an element of which nothing arrived is not appended, one
    // that breaks off is. Without memory for an element the read ends before it.
    void Read(std::vector<int>& values);
    void Read(std::vector<unsigned int>& values);
    void Read(std::vector<std::string>& values);
    void Read(std::vector<std::wstring>& values);
    void Read(std::map<std::string, std::string>& values);
    void Read(std::map<std::wstring, std::wstring>& values);

private:
    const char* TakeInPlace(unsigned int count);
    unsigned int ReadCounted(void* buffer, unsigned int count);
    std::string ReadBytes(unsigned int count);

    // False when the stream was at its end: no byte of the value arrived.
    bool ReadValue(unsigned int& value);
    bool ReadValue(int& value);
    bool ReadValue(std::string& value);
    bool ReadValue(std::wstring& value);
    template <class T> void ReadElements(std::vector<T>& values);
    template <class T> void ReadEntries(std::map<T, T>& values);

    Stream* m_stream;
};

// A container as the bytes that StreamWriter makes of it. Fails: without memory it logs and returns nothing.
VEYRASVC_API std::string SerializeToString(const std::map<std::string, std::string>& values);
VEYRASVC_API std::string SerializeToString(const std::map<std::wstring, std::wstring>& values);
VEYRASVC_API std::string SerializeToString(const std::vector<std::string>& values);
VEYRASVC_API std::string SerializeToString(const std::vector<std::wstring>& values);

// And back: DeserializeFromString<std::vector<std::string>>(bytes).
template <class Container> Container DeserializeFromString(std::string bytes) {
    MemoryrStream stream;
    stream.WriteBuffer(bytes.data(), static_cast<unsigned int>(bytes.size()));
    stream.SetPosition(0);
    Container values;
    StreamReader(&stream).Read(values);
    return values;
}

} // namespace Vantor::Sentrix
