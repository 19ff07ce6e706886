// A small packing format for memory that two parties share, independent of the one in SimpleStream.h.
//
//   IOChannel           raw bytes, in and out
//     IpcBufferBuild    over a caller's buffer; without one it measures
//   IOStream            typed values, the interface
//     DataStream        typed values over a channel
//   NxIpcPackage        integers and strings through a DataStream of its own
//
// The format, in the byte order of the host or reversed; nothing is aligned and nothing says what it is:
//
//   char, short, int, std::int64_t    1, 2, 4, 8 bytes, as they lie in memory
//   float, double                     4, 8 bytes
//   std::string                       length as a short, then the bytes
//   array of strings                  number of elements as an int, then each
//   line                              the bytes, then '\n'
//
// So the int 1 and the string "abc" are 01 00 00 00 03 00 61 62 63 on a little-endian host, and 00 00 00 01 00 03 61 62
// 63 when bytes are swapped.
//
// Owns: pointers and references are borrowed, unless a declaration says otherwise.
// Threads: a channel and what reads or writes it belong to one thread at a time, but see DataStream.
// Fails: with a count or -1. Nothing throws; without memory a string is empty and -1, an array or line ends early.
#pragma once

#include "veyrasvc/platform/Export.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Vantor::Sentrix {

// Moves raw bytes, all or none where it can. Both operations return the number of bytes moved, or -1.
class VEYRASVC_API IOChannel {
public:
    virtual ~IOChannel();

    virtual int Read(char* buffer, unsigned int length) = 0;
    virtual int Write(const char* buffer, unsigned int length) = 0;

protected:
    IOChannel() = default;
    IOChannel(const IOChannel&) = default;
    IOChannel& operator=(const IOChannel&) = default;
};

// Reads or writes a caller's buffer once, from its start to its end. A write channel over no buffer takes everything
// and stores nothing: what its writes return adds up to the room that a package needs.
// Owns: not the buffer, which must outlive the channel and its copies. A copy goes on from the same place by itself.
// Fails: -1 for what would pass the end, or goes the wrong way; buffer and place stay as they were.
// Limits: a length above INT_MAX is moved like any other, but comes back as the negative number of the same bits.
class VEYRASVC_API IpcBufferBuild : public IOChannel {
public:
    // `buffer` has `size` bytes. With `isRead` the channel only reads it, without only writes.
    IpcBufferBuild(void* buffer, unsigned int size, bool isRead);

    // A null `buffer` returns `length` and changes nothing.
    int Read(char* buffer, unsigned int length) override;

    // A null `buffer` is -1.
    int Write(const char* buffer, unsigned int length) override;

private:
    bool HasRoom(unsigned int length) const;

    unsigned int m_size;
    char* m_begin;
    char* m_cursor;
    bool m_isRead;
};

// Typed reads and writes. Callers may depend on the order of the operations: new ones go to the end.
//
// An operation without a comment moves one value and returns the bytes moved, or -1. A read that returns the value
// itself cannot report a failure.
class VEYRASVC_API IOStream {
public:
    virtual ~IOStream();

    virtual int Read(char* buffer, unsigned int length) = 0; // raw
    virtual int ReadInt32() = 0;
    virtual int ReadInt32(int& value) = 0;
    virtual short ReadInt16() = 0;
    virtual int ReadInt16(short& value) = 0;
    virtual float ReadFloat() = 0;
    virtual int ReadFloat(float& value) = 0;
    virtual double ReadDouble() = 0;
    virtual int ReadDouble(double& value) = 0;
    virtual char ReadInt8() = 0;
    virtual int ReadInt8(char& value) = 0;
    virtual std::int64_t ReadInt64() = 0;
    virtual int ReadInt64(std::int64_t& value) = 0;
    virtual std::string ReadString() = 0;
    virtual int ReadString(std::string& value) = 0;
    virtual int ReadUtf8StringArray(std::vector<std::string>& values) = 0;
    virtual int ReadLine(std::string& line) = 0;
    virtual int Write(const char* buffer, unsigned int length) = 0; // raw
    virtual int WriteInt32(int value) = 0;
    virtual int WriteInt16(short value) = 0;
    virtual int WriteFloat(float value) = 0;
    virtual int WriteDouble(double value) = 0;
    virtual int WriteInt8(char value) = 0;
    virtual int WriteInt64(std::int64_t value) = 0;
    virtual int WriteString(const std::string& value) = 0;
    virtual int WriteUtf8StringArray(const std::vector<std::string>& values) = 0;
    virtual int WriteLine(const std::string& line) = 0;
    virtual bool GetSwapBytes() = 0;
    virtual void SetSwapBytes(bool swapBytes) = 0;
    virtual void Flush() = 0;

protected:
    IOStream() = default;
    IOStream(const IOStream&) = default;
    IOStream& operator=(const IOStream&) = default;
};

// The format over a channel.
//
// Owns: not the channel, which must outlive the stream and may be null. Without one a read returns 0, empties a string
// or line and leaves any other value as it was; a write returns 0, but a string 2 and a line its length and 1.
// Threads: several may read strings through one stream if its channel allows that: the buffer they share is locked,
// also while the channel's Read runs, which therefore reads no string through the same stream. Nothing else is locked:
// the threads agree on who reads what, and a short and the bytes that it announces are two reads of the channel.
// Fails: a value that the channel does not deliver is 0; what it delivers in part is filled up with zeros.
class VEYRASVC_API DataStream : public IOStream {
public:
    // With `swapBytes` every value of more than one byte is reversed on the way in and out.
    DataStream(IOChannel* channel, bool swapBytes);
    // A copy works on the same channel.
    DataStream(const DataStream& other);
    DataStream& operator=(const DataStream& other);
    ~DataStream() override;

    int Read(char* buffer, unsigned int length) override;
    int ReadInt32() override;
    int ReadInt32(int& value) override;
    short ReadInt16() override;
    int ReadInt16(short& value) override;
    float ReadFloat() override;
    int ReadFloat(float& value) override;
    double ReadDouble() override;
    int ReadDouble(double& value) override;
    char ReadInt8() override;
    int ReadInt8(char& value) override;
    std::int64_t ReadInt64() override;
    int ReadInt64(std::int64_t& value) override;

    // Replaces `value`. Returns: 2 and what the channel returned for the bytes, so 1 when it had too few; 0, and an
    // empty string, for a length below 1 or without one.
    // Limits: a string that breaks off keeps its announced length, with zeros for what is missing, never bytes of an
    // earlier string: up to 32767 of them for a length that lies.
    std::string ReadString() override;
    int ReadString(std::string& value) override;

    // Appends to `values`. Returns: the sum of what the reads returned.
    // Limits: more than 5000 elements are refused: the number is logged and returned, and nothing more is read. A
    // number below 0 is an empty array; one that lies gives as many elements as it says, empty after the end.
    int ReadUtf8StringArray(std::vector<std::string>& values) override;

    // Replaces `line` by the bytes up to the next '\n', which is taken but not stored, or to the end of the channel.
    // Returns: the length of `line`.
    int ReadLine(std::string& line) override;

    int Write(const char* buffer, unsigned int length) override;
    int WriteInt32(int value) override;
    int WriteInt16(short value) override;
    int WriteFloat(float value) override;
    int WriteDouble(double value) override;
    int WriteInt8(char value) override;
    int WriteInt64(std::int64_t value) override;

    // Returns: 2 and what the channel returned for the bytes. That says nothing about the length, which may have found
    // no room: whoever writes to a buffer sizes it first, by the same writes over no buffer.
    // Limits: 32767 bytes, since readers take the length as signed. A longer string is refused: -1, nothing is written.
    int WriteString(const std::string& value) override;

    // Returns: the sum of what the writes returned, modulo 2^32. A string that is too long ends the array before it,
    // though the number of elements is already written; more than 5000 are written, but no reader takes them.
    int WriteUtf8StringArray(const std::vector<std::string>& values) override;

    // Returns: the length of `line` and 1, whatever the channel took.
    int WriteLine(const std::string& line) override;

    bool GetSwapBytes() override;
    void SetSwapBytes(bool swapBytes) override;

    // Does nothing: nothing is held back.
    void Flush() override;

private:
    struct Scratch;

    template <class T> int ReadValue(T& value);
    template <class T> int WriteValue(T value);

    std::unique_ptr<Scratch> m_scratch; // null without memory for it: every string reads as empty then
    IOChannel* m_channel;
    bool m_swapBytes;
};

// Packs and unpacks integers and strings, in the byte order of the host. The two sides agree on what follows what.
//
// Owns: its data stream, but not the channel, which must outlive it. Moved from, it has no data stream.
// Fails: each operation returns what the stream's returns; 0, with the output as it was, without a data stream. An
// unsigned int is set to 0 also when the stream has no channel.
class VEYRASVC_API NxIpcPackage {
public:
    explicit NxIpcPackage(IOChannel* channel);
    ~NxIpcPackage();
    NxIpcPackage(const NxIpcPackage&) = delete;
    NxIpcPackage& operator=(const NxIpcPackage&) = delete;
    NxIpcPackage(NxIpcPackage&& other) noexcept;
    NxIpcPackage& operator=(NxIpcPackage&& other) noexcept;

    // Null when there is none. Lifetime: as long as the package, or the one that it was moved to.
    DataStream* GetDataStream();

    int PacketInt(int value);
    int PacketUInt(unsigned int value);
    int PacketString(const std::string& value);

    int UnpacketInt(int& value);
    int UnpacketUInt(unsigned int& value);
    int UnpacketString(std::string& value);

private:
    std::unique_ptr<DataStream> m_dataStream;
};

} // namespace Vantor::Sentrix
